// "HALDOSDKLocation" in every bad shape, through a whole Initialize: missing,
// empty, of another type, without terminator, at and one past the 256-byte
// first query, at and one past the 260-character expansion, non-ASCII,
// holding ';' or "%VAR%". One row per shape: the result and the whole log.
#include <string>
#include <vector>

#include "tests/haldo_sdk/WrapperTest.h"
#include "tests/support/RegistryValueKinds.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAreArray;

const std::string kNotThere = "[ERROR] HALDOAPIWrapperImpl::GetDllPath: expanded Dll Path does not exist!";

// A copy of the signed stand-in at a path of exactly `length` characters.
// Paths of 260 and more are made through the extended-length prefix, so the
// file is really there for the rows that must still refuse it.
std::wstring SignedCopyOfLength(const ScratchDir& dir, size_t length) {
  const std::wstring path = dir.path() + L"\\" + std::wstring(length - dir.path().size() - 5, L'q') + L".dll";
  const std::wstring target = length >= MAX_PATH ? L"\\\\?\\" + path : path;
  if (!::CopyFileW(StandInSdkPath(StandInKind::Signed).c_str(), target.c_str(), FALSE))
    throw std::runtime_error("copy of the stand-in failed");
  return path;
}

std::wstring SignedCopyIn(const ScratchDir& dir, const std::wstring& folder) {
  const std::wstring path = dir.MakeDir(folder) + L"\\StandInSdk.dll";
  if (!::CopyFileW(StandInSdkPath(StandInKind::Signed).c_str(), path.c_str(), FALSE))
    throw std::runtime_error("copy of the stand-in failed");
  return path;
}

// The log writes each character as one byte: up to 0xFF as that byte,
// anything beyond as '?'.
std::string LogBytes(const std::wstring& text) {
  std::string bytes;
  for (wchar_t c : text) bytes += static_cast<unsigned>(c) > 0xFF ? '?' : static_cast<char>(c);
  return bytes;
}

enum class Outcome { Loads, ReadFails, Empty, NotThere };

struct LocationRow {
  const char* name;
  Outcome outcome;
};

class SdkLocationMatrix : public WrapperTest, public ::testing::WithParamInterface<LocationRow> {
 protected:
  // Writes the row's value; returns the path that Load is expected to name.
  std::wstring Arrange(const std::string& name) {
    const std::wstring sdk = StandInSdkPath(StandInKind::Signed);
    auto text = [](const std::wstring& value, DWORD type = REG_SZ, bool terminated = true) {
      WriteValue(HKEY_LOCAL_MACHINE, kHaldoKey, kSdkLocationName, Text(value, type, terminated));
    };
    auto bytes = [](DWORD type, const std::string& raw) {
      WriteValue(HKEY_LOCAL_MACHINE, kHaldoKey, kSdkLocationName, Bytes(type, raw));
    };
    if (name == "Missing") RegistrySandbox::CreateKey(HKEY_LOCAL_MACHINE, kHaldoKey);
    if (name == "Empty") text(L"");
    if (name == "EmptyWithoutNul") bytes(REG_SZ, "");
    if (name == "Dword") bytes(REG_DWORD, DwordBytes(0x005A005A));  // the text "ZZ"
    if (name == "Chars1000Value") text(L"C:\\" + std::wstring(997, L'r'));
    if (name == "UndefinedVariable") text(L"%AMBREL_MATRIX_UNDEFINED%\\StandInSdk.dll");
    if (name == "BinaryText") return text(sdk, REG_BINARY), sdk;
    if (name == "ExpandSz") return text(sdk, REG_EXPAND_SZ), sdk;
    if (name == "MultiSz")
      return text(sdk + std::wstring(1, L'\0') + L"other" + std::wstring(1, L'\0'), REG_MULTI_SZ), sdk;
    if (name == "WithoutNul") return text(sdk, REG_SZ, false), sdk;
    // 127 characters and the terminator are the 256 bytes of the first query;
    // one more character needs the enlargement.
    auto copyOfLength = [&](size_t length, bool terminated = true) {
      const std::wstring dll = SignedCopyOfLength(dir_, length);
      text(dll, REG_SZ, terminated);
      return dll;
    };
    if (name == "Chars127") return copyOfLength(127);
    if (name == "Chars128") return copyOfLength(128);
    if (name == "Chars128WithoutNul") return copyOfLength(128, false);
    if (name == "Chars129WithoutNul") return copyOfLength(129, false);
    // The expansion buffer is 260 characters with the terminator; the value
    // itself is short.
    auto expandingTo = [&](size_t length) {
      const std::wstring dll = SignedCopyOfLength(dir_, length);
      env_.Set(L"AMBREL_MATRIX_SDK_DIR", dir_.path());
      text(L"%AMBREL_MATRIX_SDK_DIR%" + dll.substr(dir_.path().size()));
      return dll;
    };
    if (name == "Expanded259") return expandingTo(259);
    if (name == "Expanded260") return expandingTo(260);
    auto copyIn = [&](const std::wstring& folder) {
      const std::wstring dll = SignedCopyIn(dir_, folder);
      text(dll);
      return dll;
    };
    if (name == "NonAscii") return copyIn(L"\u015C\u0127\u00E0\u0159\u00E9\u0111 \u4E2D");
    if (name == "Semicolon") return copyIn(L"a;b");
    if (name == "DefinedVariable") {
      env_.Set(L"AMBREL_MATRIX_SDK_DIR", sdk.substr(0, sdk.rfind(L'\\')));
      text(L"%AMBREL_MATRIX_SDK_DIR%\\StandInSdk.dll");
      return sdk;
    }
    return L"";  // the rows that load nothing
  }

  EnvGuard env_;
  ScratchDir dir_;
};

std::vector<std::string> Expected(Outcome outcome, const std::string& path) {
  switch (outcome) {
    case Outcome::Loads:
      return {kLogSeparator, kArgsLine, "[INFO] Load: HALDO SDK path = " + path,
              "[INFO] HALDOAPIWrapperImpl::Initialize: HALDO SDK loaded successfully",
              "[INFO] HALDOAPIWrapperImpl::Initialize: session id = standin-session"};
    case Outcome::ReadFails:
      return {kLogSeparator,
              kArgsLine,
              "[ERROR] HALDOAPIWrapperImpl::ReadStringFromRegistry: RegQueryValueEx failed!",
              "[ERROR] HALDOAPIWrapperImpl::GetDllPath: Failed to read registry!",
              kPathEmptyLine,
              kLoadFailedLine};
    case Outcome::Empty: return {kLogSeparator, kArgsLine, kPathEmptyLine, kLoadFailedLine};
    case Outcome::NotThere: return {kLogSeparator, kArgsLine, kNotThere, kPathEmptyLine, kLoadFailedLine};
  }
  return {};
}

TEST_P(SdkLocationMatrix, Initialize) {
  const LocationRow& row = GetParam();
  const std::wstring path = Arrange(row.name);
  const bool loads = row.outcome == Outcome::Loads;
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), loads ? 0 : 3);
  EXPECT_EQ(WrapperState().dllPath, loads ? path : L"");
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(Expected(row.outcome, LogBytes(path))));
  if (loads) EXPECT_EQ(wrapper_.Uninitialize(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Values, SdkLocationMatrix,
    ::testing::Values(LocationRow{"Missing", Outcome::ReadFails}, LocationRow{"Empty", Outcome::Empty},
                      LocationRow{"EmptyWithoutNul", Outcome::Empty}, LocationRow{"Dword", Outcome::NotThere},
                      LocationRow{"BinaryText", Outcome::Loads}, LocationRow{"ExpandSz", Outcome::Loads},
                      LocationRow{"MultiSz", Outcome::Loads}, LocationRow{"WithoutNul", Outcome::Loads},
                      LocationRow{"Chars127", Outcome::Loads}, LocationRow{"Chars128", Outcome::Loads},
                      LocationRow{"Chars128WithoutNul", Outcome::Loads},
                      LocationRow{"Chars129WithoutNul", Outcome::Loads},
                      LocationRow{"Chars1000Value", Outcome::NotThere}, LocationRow{"Expanded259", Outcome::Loads},
                      LocationRow{"Expanded260", Outcome::NotThere}, LocationRow{"NonAscii", Outcome::Loads},
                      LocationRow{"Semicolon", Outcome::Loads}, LocationRow{"UndefinedVariable", Outcome::NotThere},
                      LocationRow{"DefinedVariable", Outcome::Loads}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
}  // namespace ambrel::test
