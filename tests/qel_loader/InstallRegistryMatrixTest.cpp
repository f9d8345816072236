// IsQELInstalled over "InstallPath" and "Version" in every bad shape:
// missing, empty, of another type, without terminator, at and one past the
// 260-byte read, non-ASCII, holding ';' or "%VAR%". One answer per row.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Ambrel.h"
#include "tests/support/RegistryValueKinds.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {
namespace {

const std::wstring kShared = L"{dir}\\Shared";
const std::wstring kSharedV = L"{dir}\\Shared\\v";

struct InstalledRow {
  const char* name;
  ValueShape installPath;
  ValueShape version;
  std::vector<std::wstring> folders;
  bool installed;
};

std::vector<InstalledRow> Rows() {
  const std::wstring nonAscii = L"{dir}\\\u015C\u0127\u00E0\u0159\u00E9\u0111 \u4E2D";
  return {
      {"InstallPathMissing", Missing(), Sz(L"v"), {kSharedV}, false},
      {"InstallPathEmpty", Sz(L""), Sz(L"v"), {kSharedV}, false},
      {"InstallPathAsDword", Raw(REG_DWORD, DwordBytes(0x005A005A)), Sz(L"v"), {kSharedV}, false},
      {"InstallPathAsBinaryText", Sz(kShared, REG_BINARY), Sz(L"v"), {kSharedV}, true},
      {"InstallPathAsMultiSz",
       Sz(kShared + std::wstring(1, L'\0') + L"other" + std::wstring(1, L'\0'), REG_MULTI_SZ),
       Sz(L"v"),
       {kSharedV},
       true},
      {"InstallPathWithoutNul", Sz(kShared, REG_SZ, false), Sz(L"v"), {kSharedV}, true},
      {"InstallPathOf129Characters", Sz(L"{p129}"), Sz(L"v"), {L"{p129}\\v"}, true},
      {"InstallPathOf130Characters", Sz(L"{p130}"), Sz(L"v"), {L"{p130}\\v"}, false},
      // 260 bytes exactly, but no room for the terminator: "more data" under Wine.
      {"InstallPathOf130CharactersWithoutNul", Sz(L"{p130}", REG_SZ, false), Sz(L"v"), {L"{p130}\\v"}, false},
      {"InstallPathNonAscii", Sz(nonAscii), Sz(L"v"), {nonAscii + L"\\v"}, true},
      {"InstallPathWithSemicolon", Sz(L"{dir}\\a;b"), Sz(L"v"), {L"{dir}\\a;b\\v"}, true},
      // Never expanded, whatever the type.
      {"InstallPathWithVariable", Sz(L"%AMBREL_MATRIX_DIR%\\Shared"), Sz(L"v"), {kSharedV}, false},
      {"InstallPathExpandSzWithVariable",
       Sz(L"%AMBREL_MATRIX_DIR%\\Shared", REG_EXPAND_SZ),
       Sz(L"v"),
       {kSharedV},
       false},
      {"InstallPathInvalidCharacters", Sz(L"{dir}\\a<b>|\"?*"), Sz(L"v"), {kSharedV}, false},
      {"VersionInvalidCharacters", Sz(kShared), Sz(L"a<b>|\"?*"), {kSharedV}, false},
      {"VersionMissing", Sz(kShared), Missing(), {kSharedV}, false},
      {"VersionEmpty", Sz(kShared), Sz(L""), {kSharedV}, false},
      {"VersionEmptyWithoutNul", Sz(kShared), Raw(REG_SZ, ""), {kSharedV}, false},
      {"VersionAsDword", Sz(kShared), Raw(REG_DWORD, DwordBytes(0x31)), {kShared + L"\\1"}, true},
      {"VersionAsOneByteBinary", Sz(kShared), Raw(REG_BINARY, "v"), {kSharedV}, true},
      {"VersionWithoutNul", Sz(kShared), Sz(L"v", REG_SZ, false), {kSharedV}, true},
      {"VersionOf129Characters",
       Sz(kShared),
       Sz(std::wstring(129, L'v')),
       {kShared + L"\\" + std::wstring(129, L'v')},
       true},
      {"VersionOf130Characters",
       Sz(kShared),
       Sz(std::wstring(130, L'v')),
       {kShared + L"\\" + std::wstring(130, L'v')},
       false},
      {"VersionNonAscii", Sz(kShared), Sz(L"v\u00E9r\u015Fi\u00F6n"), {kShared + L"\\v\u00E9r\u015Fi\u00F6n"}, true},
      {"VersionWithSemicolon", Sz(kShared), Sz(L"1;2"), {kShared + L"\\1;2"}, true},
      {"VersionWithVariable", Sz(kShared), Sz(L"%AMBREL_MATRIX_VERSION%"), {kSharedV}, false},
      // The join of the file-system path: an absolute Version replaces the folder.
      {"VersionAbsolute", Sz(kShared), Sz(L"{dir}\\Elsewhere"), {kShared, L"{dir}\\Elsewhere"}, true},
  };
}

class InstalledMatrix : public ::testing::TestWithParam<InstalledRow> {
 protected:
  InstalledMatrix() {
    env_.Set(L"AMBREL_MATRIX_DIR", dir_.path());
    env_.Set(L"AMBREL_MATRIX_VERSION", L"v");
  }
  RegistrySandbox registry_;
  EnvGuard env_;
  ScratchDir dir_;
};

TEST_P(InstalledMatrix, IsQELInstalled) {
  const InstalledRow& row = GetParam();
  MakeFolders(dir_, row.folders);
  WriteShape(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", row.installPath, dir_);
  WriteShape(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", row.version, dir_);
  EXPECT_EQ(QelLoadHelper::IsQELInstalled(), row.installed);
}

INSTANTIATE_TEST_SUITE_P(Values, InstalledMatrix, ::testing::ValuesIn(Rows()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ambrel::test
