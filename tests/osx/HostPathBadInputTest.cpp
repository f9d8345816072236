// The App Paths "Path" value in every bad shape, and PATH absent, empty and at
// the 32,767-character limit, for both PATH edits.
#include <gtest/gtest.h>

#include <stdlib.h>

#include <cwctype>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "Ambrel.h"
#include "osx/HostPath.h"
#include "tests/support/RegistryValueKinds.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {
namespace {

const std::wstring kAppPathKey = L"SOFTWARE\\Microsoft\\Windows\\CurrentVersion\\App Paths\\test_osx.exe";

// ---- App Paths "Path"

struct AppPathRow {
  const char* name;
  ValueShape value;
  std::wstring pathBefore;
  bool result;
  std::wstring pathAfter;
  bool valueKept;
};

std::vector<AppPathRow> AppPathRows() {
  const std::wstring nonAscii = L"C:\\Pr\u00F6gr\u00E4m \u4E2D\\Bin";
  const std::wstring big(10000, L'L');
  return {
      {"MissingValue", Missing(), L"X;Y", false, L"X;Y", false},
      {"ZeroBytes", Raw(REG_SZ, ""), L"X;Y", false, L"X;Y", true},
      {"OnlyTheTerminator", Sz(L""), L"First;Second", true, L"Second", false},
      {"Dword", Raw(REG_DWORD, DwordBytes(7)), L"X;Y", false, L"X;Y", true},
      {"BinaryText", Sz(L"X", REG_BINARY), L"X;Y", false, L"X;Y", true},
      {"MultiSz", Sz(L"X" + std::wstring(1, L'\0') + L"Y" + std::wstring(1, L'\0'), REG_MULTI_SZ), L"X;Y", false,
       L"X;Y", true},
      {"NoneType", Sz(L"X", REG_NONE), L"X;Y", false, L"X;Y", true},
      {"ExpandSzUnexpanded", Sz(L"%AMBREL_MATRIX_ROOT%\\Bin", REG_EXPAND_SZ), L"X;C:\\Root\\Bin;Y", true,
       L"X;C:\\Root\\Bin;Y", false},
      {"VariableTextFoundAsWritten", Sz(L"%AMBREL_MATRIX_ROOT%\\Bin"), L"X;%AMBREL_MATRIX_ROOT%\\Bin;Y", true, L"X;Y",
       false},
      {"NonAscii", Sz(nonAscii), L"X;" + nonAscii + L";Y", true, L"X;Y", false},
      // The cut runs from the match to the first ';' after it, inside the text.
      {"Semicolon", Sz(L"A;B"), L"X;A;B;Y", true, L"X;B;Y", false},
      {"EmbeddedNulEndsTheText", Sz(L"C:\\A" + std::wstring(1, L'\0') + L"junk"), L"X;C:\\A;Y", true, L"X;Y", false},
      {"TenThousandCharacters", Sz(big), L"X;" + big + L";Y", true, L"X;Y", false},
      {"LongerThanPath", Sz(L"X;Y;Z"), L"X;Y", true, L"X;Y", false},
  };
}

class AppPathMatrix : public ::testing::TestWithParam<AppPathRow> {
 protected:
  AppPathMatrix() { env_.Set(L"AMBREL_MATRIX_ROOT", L"C:\\Root"); }
  RegistrySandbox registry_;
  EnvGuard env_{L"PATH"};
  ScratchDir dir_;
};

TEST_P(AppPathMatrix, RemoveAppPathSetting) {
  const AppPathRow& row = GetParam();
  WriteShape(HKEY_CURRENT_USER, kAppPathKey, L"Path", row.value, dir_);
  env_.Set(L"PATH", row.pathBefore);
  EXPECT_EQ(OSxUtil::RemoveAppPathSetting(), row.result);
  EXPECT_EQ(EnvGuard::Get(L"PATH"), row.pathAfter);
  EXPECT_EQ(RegistrySandbox::ValueExists(HKEY_CURRENT_USER, kAppPathKey, L"Path"), row.valueKept);
}

INSTANTIATE_TEST_SUITE_P(Values, AppPathMatrix, ::testing::ValuesIn(AppPathRows()),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- PATH absent, empty and at its limit

std::wstring ProgramDirectory() {
  wchar_t path[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, path, MAX_PATH);
  return std::filesystem::path(path).parent_path().wstring();
}

TEST(PathVariableBadInput, TheLongestValueIsKeptWhole) {
  EnvGuard env{L"PATH"};
  const std::wstring full = PathListOfLength(kLongestEnvironmentValue);
  env.Set(L"PATH", full);
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == full);
}

// The runtime cannot hold an empty value: setting PATH to "" removes it from
// the runtime's environment (the Win32 block may keep an empty PATH), so an
// empty PATH reads as "not set" and both edits leave it so.
TEST(PathVariableBadInput, EmptyPathIsNotSetForPrepend) {
  EnvGuard env{L"PATH"};
  env.Set(L"PATH", L"");
  EXPECT_FALSE(OSxUtil::PrependKalvexPath());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), std::nullopt);
}

TEST(PathVariableBadInput, EmptyPathIsNotSetForTheEdit) {
  EnvGuard env{L"PATH"};
  env.Set(L"PATH", L"");
  EXPECT_FALSE(RemoveFromPathVariable(L"X"));
  EXPECT_FALSE(RemoveFromPathVariable(L""));
  EXPECT_EQ(EnvGuard::Get(L"PATH"), std::nullopt);
}

TEST(PathVariableBadInput, AbsentPathIsFalseForTheEditAndNotCreated) {
  EnvGuard env{L"PATH"};
  env.Unset(L"PATH");
  EXPECT_FALSE(RemoveFromPathVariable(L"X"));
  EXPECT_EQ(EnvGuard::Get(L"PATH"), std::nullopt);
  EXPECT_EQ(::GetEnvironmentVariableW(L"PATH", nullptr, 0), 0u);
}

// Prepending to a full PATH makes a value past the limit. The result is what
// the runtime's write answers and PATH is what the runtime keeps, both asked
// here on a scratch variable: Wine's runtime answers success and keeps the
// first 32,766 characters, so PATH's last entries are lost.
TEST(PathVariableBadInput, PrependToTheFullestPath) {
  EnvGuard env{L"PATH"};
  const std::wstring full = PathListOfLength(kLongestEnvironmentValue);
  const std::wstring wanted = ProgramDirectory() + L";" + full;
  const std::optional<std::wstring> kept = EnvGuard::Kept(wanted);
  env.Set(L"PATH", full);
  EXPECT_EQ(OSxUtil::PrependKalvexPath(), kept.has_value());
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == (kept ? *kept : full));
  // Whatever was kept, the folder now leads PATH.
  EXPECT_EQ(EnvGuard::Get(L"PATH")->rfind(ProgramDirectory() + L";", 0), 0u);
}

TEST(PathVariableBadInput, FolderAtTheEndOfAPathOf32767CharactersIsFound) {
  EnvGuard env{L"PATH"};
  const std::wstring tail = L";" + ProgramDirectory();
  std::wstring full = PathListOfLength(kLongestEnvironmentValue - tail.size()) + tail;
  for (auto& c : full) c = static_cast<wchar_t>(std::towupper(c));  // found in other letter case too
  ASSERT_EQ(full.size(), kLongestEnvironmentValue);
  env.Set(L"PATH", full);
  EXPECT_TRUE(OSxUtil::PrependKalvexPath());
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == full);
}

TEST(PathVariableBadInput, EditOfAPathOf32767Characters) {
  EnvGuard env{L"PATH"};
  const std::wstring full = PathListOfLength(kLongestEnvironmentValue);
  env.Set(L"PATH", full);
  // The last entry is cut short by the length; it goes with its tail.
  const size_t last = full.rfind(L';') + 1;
  EXPECT_TRUE(RemoveFromPathVariable(full.substr(last)));
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == full.substr(0, last));
  // The first entry and its separator.
  env.Set(L"PATH", full);
  EXPECT_TRUE(RemoveFromPathVariable(L"E00001"));
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == full.substr(7));
  // A text that is not there changes nothing.
  env.Set(L"PATH", full);
  EXPECT_FALSE(RemoveFromPathVariable(L"E99999"));
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == full);
}

TEST(PathVariableBadInput, AppPathRemovedFromAPathOf32767Characters) {
  RegistrySandbox registry;
  EnvGuard env{L"PATH"};
  const std::wstring full = PathListOfLength(kLongestEnvironmentValue);
  RegistrySandbox::SetString(HKEY_CURRENT_USER, kAppPathKey, L"Path", L"E02000");
  env.Set(L"PATH", full);
  const size_t at = full.find(L"E02000");
  ASSERT_NE(at, std::wstring::npos);
  EXPECT_TRUE(OSxUtil::RemoveAppPathSetting());
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == full.substr(0, at) + full.substr(at + 7));
  EXPECT_FALSE(RegistrySandbox::ValueExists(HKEY_CURRENT_USER, kAppPathKey, L"Path"));
}

}  // namespace
}  // namespace ambrel::test
