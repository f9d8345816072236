// The session's three registry values in every bad shape: missing, empty, of
// another type, without terminator, at and one past the read size, non-ASCII,
// holding ';' or "%VAR%". One row per shape, each with its code, location and
// messages.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "qel_session/QelSession.h"
#include "tests/qel_session/SessionTestSupport.h"
#include "tests/support/RegistryValueKinds.h"

namespace ambrel::test {
namespace {

using ::testing::Return;
using ::testing::StrictMock;

const std::wstring kPathIncorrect = L"The Install Location Path is Incorrect";
const std::wstring kVersionMissing = L"The Version for the Install Path Does Not Exist.";

std::wstring OkText() { return SystemErrorText(ERROR_SUCCESS); }

using Shape = ValueShape;

class RegistryMatrix : public ::testing::Test {
 protected:
  RegistryMatrix() {
    env_.Unset(L"QEL_INITIALIZE_BYPASSED");
    env_.Unset(L"QEL_PATH_2026");
    // Would make the references below resolvable, were they expanded.
    env_.Set(L"AMBREL_MATRIX_DIR", dir_.path());
    env_.Set(L"AMBREL_MATRIX_VERSION", L"v");
    auto mock = std::make_unique<StrictMock<MockWrapper>>();
    wrapper_ = mock.get();
    session_ = std::make_unique<QelSession>(std::move(mock));
  }

  std::wstring Expand(const std::wstring& text) const { return ExpandPlaceholders(text, dir_); }
  void Write(const std::wstring& name, const Shape& shape) const {
    WriteShape(HKEY_LOCAL_MACHINE, kSharedComponentsKey, name, shape, dir_);
  }
  void MakeFolders(const std::vector<std::wstring>& folders) const { ambrel::test::MakeFolders(dir_, folders); }

  Messages ExpandAll(const Messages& messages) const {
    Messages expanded;
    for (const auto& [level, text] : messages) expanded.emplace_back(level, Expand(text));
    return expanded;
  }

  RegistrySandbox sandbox_;
  EnvGuard env_;
  ScratchDir dir_;
  SinkCapture sink_;
  StrictMock<MockWrapper>* wrapper_ = nullptr;
  std::unique_ptr<QelSession> session_;
};

// ---- InstallPath and Version, read by the registry locate step

struct LocateRow {
  const char* name;
  Shape installPath;
  Shape version;
  std::vector<std::wstring> folders;  // created before the call
  QelStatus result;
  std::wstring location;  // installLocation afterwards
  Messages messages;
};

const std::wstring kShared = L"{dir}\\Shared";
const std::wstring kSharedV = L"{dir}\\Shared\\v";

std::vector<LocateRow> LocateRows() {
  const std::wstring ok = OkText();
  const Message readInstallPathFailed{L"FATAL", L"Failed to read InstallPath registry entry"};
  const Message readVersionFailed{L"FATAL", L"Failed to read Version from registry entry"};
  // UTF-16 of "{dir}\Shared" is not known here, so the multi-string row is
  // written as text with an embedded NUL and a second string.
  return {
      // InstallPath
      {"InstallPathMissing", Missing(), Sz(L"v"), {kSharedV}, RegistryReadFailed, L"", {readInstallPathFailed}},
      {"InstallPathEmpty",
       Sz(L""),
       Sz(L"v"),
       {kSharedV},
       PathNotFound,
       L"",
       {{L"ERROR", kPathIncorrect + L" Error Code : " + ok}}},
      // Four bytes 5A 00 5A 00 read as the text "ZZ", a folder that is not there.
      {"InstallPathAsDword",
       Raw(REG_DWORD, DwordBytes(0x005A005A)),
       Sz(L"v"),
       {kSharedV},
       PathNotFound,
       L"",
       {{L"ERROR", kPathIncorrect + L"ZZ Error Code : " + ok}}},
      {"InstallPathAsBinaryText", Sz(kShared, REG_BINARY), Sz(L"v"), {kSharedV}, Success, kSharedV, {}},
      {"InstallPathAsExpandSz", Sz(kShared, REG_EXPAND_SZ), Sz(L"v"), {kSharedV}, Success, kSharedV, {}},
      {"InstallPathAsMultiSz",
       Sz(kShared + std::wstring(1, L'\0') + L"other" + std::wstring(1, L'\0'), REG_MULTI_SZ),
       Sz(L"v"),
       {kSharedV},
       Success,
       kSharedV,
       {}},
      {"InstallPathWithoutNul", Sz(kShared, REG_SZ, false), Sz(L"v"), {kSharedV}, Success, kSharedV, {}},
      {"InstallPathOf129Characters", Sz(L"{p129}"), Sz(L"v"), {L"{p129}\\v"}, Success, L"{p129}\\v", {}},
      {"InstallPathOf130Characters",
       Sz(L"{p130}"),
       Sz(L"v"),
       {L"{p130}\\v"},
       RegistryReadFailed,
       L"",
       {readInstallPathFailed}},
      // 130 characters without terminator fill the 260 bytes offered exactly,
      // leaving no room for the terminator a text read adds: Wine's registry
      // answers "more data" too, so the 129-character limit holds.
      {"InstallPathOf130CharactersWithoutNul",
       Sz(L"{p130}", REG_SZ, false),
       Sz(L"v"),
       {L"{p130}\\v"},
       RegistryReadFailed,
       L"",
       {readInstallPathFailed}},
      {"InstallPathNonAscii",
       Sz(L"{dir}\\\u015C\u0127\u00E0\u0159\u00E9\u0111 \u4E2D"),
       Sz(L"v"),
       {L"{dir}\\\u015C\u0127\u00E0\u0159\u00E9\u0111 \u4E2D\\v"},
       Success,
       L"{dir}\\\u015C\u0127\u00E0\u0159\u00E9\u0111 \u4E2D\\v",
       {}},
      {"InstallPathWithSemicolon", Sz(L"{dir}\\a;b"), Sz(L"v"), {L"{dir}\\a;b\\v"}, Success, L"{dir}\\a;b\\v", {}},
      // References are never expanded, whatever the type.
      {"InstallPathWithVariable",
       Sz(L"%AMBREL_MATRIX_DIR%\\Shared"),
       Sz(L"v"),
       {kSharedV},
       PathNotFound,
       L"",
       {{L"ERROR", kPathIncorrect + L"%AMBREL_MATRIX_DIR%\\Shared Error Code : " + ok}}},
      {"InstallPathExpandSzWithVariable",
       Sz(L"%AMBREL_MATRIX_DIR%\\Shared", REG_EXPAND_SZ),
       Sz(L"v"),
       {kSharedV},
       PathNotFound,
       L"",
       {{L"ERROR", kPathIncorrect + L"%AMBREL_MATRIX_DIR%\\Shared Error Code : " + ok}}},
      // Characters no file name may hold: "invalid name", one of the not-found errors.
      {"InstallPathInvalidCharacters",
       Sz(L"{dir}\\a<b>|\"?*"),
       Sz(L"v"),
       {kSharedV},
       PathNotFound,
       L"",
       {{L"ERROR", kPathIncorrect + L"{dir}\\a<b>|\"?* Error Code : " + ok}}},
      // Version
      {"VersionMissing", Sz(kShared), Missing(), {kSharedV}, RegistryReadFailed, L"", {readVersionFailed}},
      {"VersionEmpty",
       Sz(kShared),
       Sz(L""),
       {kSharedV},
       VersionEmpty,
       L"",
       {{L"FATAL", L"Entry for Version in Registry is Empty."}}},
      // Bytes 31 00 00 00: the text "1".
      {"VersionAsDword",
       Sz(kShared),
       Raw(REG_DWORD, DwordBytes(0x31)),
       {kShared + L"\\1"},
       Success,
       kShared + L"\\1",
       {}},
      // One byte 'v': the buffer's zero fill completes the character.
      {"VersionAsOneByteBinary", Sz(kShared), Raw(REG_BINARY, "v"), {kSharedV}, Success, kSharedV, {}},
      {"VersionWithoutNul", Sz(kShared), Sz(L"v", REG_SZ, false), {kSharedV}, Success, kSharedV, {}},
      {"VersionOf129Characters",
       Sz(kShared),
       Sz(std::wstring(129, L'v')),
       {kShared + L"\\" + std::wstring(129, L'v')},
       Success,
       kShared + L"\\" + std::wstring(129, L'v'),
       {}},
      {"VersionOf130Characters",
       Sz(kShared),
       Sz(std::wstring(130, L'v')),
       {kShared + L"\\" + std::wstring(130, L'v')},
       RegistryReadFailed,
       L"",
       {readVersionFailed}},
      {"VersionNonAscii",
       Sz(kShared),
       Sz(L"v\u00E9r\u015Fi\u00F6n"),
       {kShared + L"\\v\u00E9r\u015Fi\u00F6n"},
       Success,
       kShared + L"\\v\u00E9r\u015Fi\u00F6n",
       {}},
      {"VersionNonAsciiMissing",
       Sz(kShared),
       Sz(L"v\u00E9r\u015Fi\u00F6n"),
       {kSharedV},
       PathNotFound,
       kShared + L"\\v\u00E9r\u015Fi\u00F6n",
       {{L"ERROR", kVersionMissing + L"v\u00E9r\u015Fi\u00F6n Error Code : " + ok}}},
      {"VersionWithSemicolon", Sz(kShared), Sz(L"1;2"), {kShared + L"\\1;2"}, Success, kShared + L"\\1;2", {}},
      {"VersionInvalidCharacters",
       Sz(kShared),
       Sz(L"a<b>|\"?*"),
       {kSharedV},
       PathNotFound,
       kShared + L"\\a<b>|\"?*",
       {{L"ERROR", kVersionMissing + L"a<b>|\"?* Error Code : " + ok}}},
      {"VersionWithVariable",
       Sz(kShared),
       Sz(L"%AMBREL_MATRIX_VERSION%"),
       {kSharedV},
       PathNotFound,
       kShared + L"\\%AMBREL_MATRIX_VERSION%",
       {{L"ERROR", kVersionMissing + L"%AMBREL_MATRIX_VERSION% Error Code : " + ok}}},
  };
}

class LocateMatrix : public RegistryMatrix, public ::testing::WithParamInterface<LocateRow> {};

TEST_P(LocateMatrix, RegistryLocateStep) {
  const LocateRow& row = GetParam();
  MakeFolders(row.folders);
  Write(L"InstallPath", row.installPath);
  Write(L"Version", row.version);
  EXPECT_CALL(*wrapper_, Initialize("QEL", "2026", "neutral")).WillOnce(Return(0));
  ASSERT_EQ(session_->Initialize(L"2026"), Success);
  EXPECT_EQ(session_->ReadInstallLocation(L"2026"), row.result);
  EXPECT_EQ(HeldFolder(*session_, *wrapper_), Expand(row.location));
  EXPECT_EQ(sink_.messages(), ExpandAll(row.messages));
}

INSTANTIATE_TEST_SUITE_P(Values, LocateMatrix, ::testing::ValuesIn(LocateRows()),
                         [](const auto& info) { return std::string(info.param.name); });

// ---- EnablePathOverride, read by the override step

struct OverrideRow {
  const char* name;
  Shape enable;
  std::wstring overrideValue;  // QEL_PATH_2026
  QelStatus result;
  std::wstring location;
  bool overridden;
  Messages messages;
};

const Message kNoCustomPath{L"FATAL", L"There is no custom path set"};
const Message kOverrideOn{L"INFO", L"EnablePathOverride is set to 1"};

std::vector<OverrideRow> OverrideRows() {
  const std::wstring v = L"C:\\Override";
  return {
      {"Missing", Missing(), v, NoPathOverride, L"", false, {kNoCustomPath}},
      // A value of no bytes reads fine and leaves the preset 0.
      {"EmptyBinary", Raw(REG_BINARY, ""), v, NoPathOverride, L"", false, {}},
      {"EmptyDword", Raw(REG_DWORD, ""), v, NoPathOverride, L"", false, {}},
      {"EmptyText", Sz(L""), v, NoPathOverride, L"", false, {}},
      {"DwordOne", Raw(REG_DWORD, DwordBytes(1)), v, Success, v, true, {kOverrideOn}},
      // The text "1" is the bytes 31 00 00 00: the number 49.
      {"TextOne", Sz(L"1"), v, NoPathOverride, L"", false, {}},
      {"TextOneWithoutNul", Sz(L"1", REG_SZ, false), v, NoPathOverride, L"", false, {}},
      {"OneByte", Raw(REG_BINARY, std::string(1, '\x01')), v, Success, v, true, {kOverrideOn}},
      {"ThreeBytes", Raw(REG_BINARY, std::string("\x01\0\0", 3)), v, Success, v, true, {kOverrideOn}},
      {"FourBytes", Raw(REG_BINARY, std::string("\x01\0\0\0", 4)), v, Success, v, true, {kOverrideOn}},
      {"FourBytesBigEndianOne",
       Raw(REG_DWORD_BIG_ENDIAN, std::string("\0\0\0\x01", 4)),
       v,
       NoPathOverride,
       L"",
       false,
       {}},
      // Past the four bytes offered: the read fails.
      {"FiveBytes", Raw(REG_BINARY, std::string("\x01\0\0\0\0", 5)), v, NoPathOverride, L"", false, {kNoCustomPath}},
      {"QwordOne",
       Raw(REG_QWORD, std::string("\x01\0\0\0\0\0\0\0", 8)),
       v,
       NoPathOverride,
       L"",
       false,
       {kNoCustomPath}},
      {"TwoCharacterText", Sz(L"1x"), v, NoPathOverride, L"", false, {kNoCustomPath}},
      // The variable is taken as it stands.
      {"OverrideWithSemicolonAndVariable",
       Raw(REG_DWORD, DwordBytes(1)),
       L"%AMBREL_MATRIX_DIR%;C:\\x",
       Success,
       L"%AMBREL_MATRIX_DIR%;C:\\x",
       true,
       {kOverrideOn}},
      {"OverrideNonAscii",
       Raw(REG_DWORD, DwordBytes(1)),
       L"C:\\\u00DCbers\u00E9tzung \u4E2D",
       Success,
       L"C:\\\u00DCbers\u00E9tzung \u4E2D",
       true,
       {kOverrideOn}},
  };
}

class OverrideMatrix : public RegistryMatrix, public ::testing::WithParamInterface<OverrideRow> {};

TEST_P(OverrideMatrix, OverrideStep) {
  const OverrideRow& row = GetParam();
  EXPECT_CALL(*wrapper_, Initialize("QEL", "2026", "neutral")).WillOnce(Return(0));
  ASSERT_EQ(session_->Initialize(L"2026"), Success);
  env_.Set(L"QEL_PATH_2026", row.overrideValue);
  Write(L"EnablePathOverride", row.enable);
  EXPECT_EQ(session_->GetPathOverride(L"2026"), row.result);
  EXPECT_EQ(HeldFolder(*session_, *wrapper_), row.location);
  EXPECT_EQ(sink_.messages(), row.messages);
  EXPECT_EQ(TakesTheOverrideAsNamingTheFolder(*session_, *wrapper_, dir_), row.overridden);
}

INSTANTIATE_TEST_SUITE_P(Values, OverrideMatrix, ::testing::ValuesIn(OverrideRows()),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ambrel::test
