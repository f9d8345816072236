// ambrel-diagnose against the stand-in SDK in the registry sandbox: one row
// per condition, each with the program's exit code, the verdict lines it must
// print and the JSON it must give for the same machine; and, for every row,
// InitializeQel run on the same machine right after, which must do what the
// program said it would.
#include <gtest/gtest.h>

#include <windows.h>

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "Ambrel.h"
#include "qel_loader/InstallQueries.h"
#include "tests/support/SdkSandbox.h"

namespace ambrel::test {
namespace {

// The test build, which takes --registry-sandbox; the shipped program does not.
std::wstring DiagnoseProgram() { return TestBinDirectory() + L"\\ambrel-diagnose-sandboxed.exe"; }
std::wstring ShippedProgram() { return TestBinDirectory() + L"\\ambrel-diagnose.exe"; }

ProcessResult RunDiagnose(const SdkSandbox& sandbox, const std::wstring& arguments = L"") {
  return RunProcess(DiagnoseProgram(),
                    L"--registry-sandbox \"" + sandbox.registry().ScratchKeyPath() + L"\" " + arguments);
}

// True when a line of `output` begins with `prefix`.
bool HasLineStarting(const std::string& output, const std::string& prefix) {
  for (const std::string& line : SplitLines(output))
    if (line.rfind(prefix, 0) == 0) return true;
  return false;
}

struct Row {
  const char* name;
  std::function<void(SdkSandbox&)> arrange;
  DWORD exitCode;
  std::vector<std::string> lines;  // line beginnings of the text output
  std::vector<std::string> json;   // fragments of the JSON document
};

// Rows print as their name in failure messages.
void PrintTo(const Row& row, std::ostream* out) { *out << row.name; }

std::string Pid() { return std::to_string(::GetCurrentProcessId()); }

const std::vector<Row>& Rows() {
  static const std::vector<Row> rows = {
      {"Healthy",
       [](SdkSandbox&) {},
       0,
       {"ok    library.version          ambrel-diagnose " AMBREL_VERSION_TEXT
        " judges with the code of Ambrel " AMBREL_VERSION_TEXT,
        "info  library.signature        not signed (WinVerifyTrust 0x800B0100)",
        "ok    marker",
        "ok    sdk.selfUpdateLock",
        "ok    sdk.location",
        "ok    sdk.file",
        "ok    sdk.signature",
        "ok    sdk.publisher",
        "ok    sdk.machine              x64 (0x8664), as the host",
        "ok    sdk.export.Initialize",
        "ok    sdk.export.ReleaseMemory",
        "ok    sdk.export.Uninitialize",
        "ok    sdk.export.LockDirectory",
        "ok    sdk.export.UnLockDirectory",
        "ok    registry.key",
        "ok    registry.override",
        "ok    registry.installPath",
        "ok    registry.version",
        "ok    location",
        "ok    path",
        "ok    result                   InitializeQel would return true with"},
       {"\"initializeQel\": true", "\"sdkLock\": true", "\"exitCode\": 0",
        "{\"id\": \"sdk.signature\", \"verdict\": \"ok\"",
        "\"status\": 0, \"statusHex\": \"0x00000000\", \"verified\": true",
        "{\"id\": \"library.signature\", \"verdict\": \"info\", \"text\": \"not signed (WinVerifyTrust 0x800B0100)\", "
        "\"evidence\": {\"status\": -2146762496, \"statusHex\": \"0x800B0100\", \"verified\": false, \"signer\": null}}"}},
      {"NoRegistryEntry",
       [](SdkSandbox&) { RegistrySandbox::DeleteKey(HKEY_LOCAL_MACHINE, kSharedComponentsKey); },
       1,
       {"fail  registry.key", "skip  registry.installPath", "skip  location",
        "fail  result                   InitializeQel would return false: the shared-components entry"},
       {"\"initializeQel\": false", "\"exitCode\": 1", "{\"id\": \"registry.key\", \"verdict\": \"fail\"",
        "\"present\": false"}},
      {"VersionFolderMissing",
       [](SdkSandbox&) { SdkSandbox::SetVersion(L"2026.9"); },
       1,
       {"ok    registry.installPath", "fail  registry.version",
        "fail  result                   InitializeQel would return false: the version folder"},
       {"\"initializeQel\": false", "{\"id\": \"registry.version\", \"verdict\": \"fail\"", "\"value\": \"2026.9\""}},
      {"OverrideWithoutVariable",
       [](SdkSandbox&) {
         RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", 1);
       },
       0,
       {"warn  registry.override", "ok    registry.version", "ok    location", "ok    result"},
       {"\"initializeQel\": true",
        "\"enablePathOverride\": 1, \"variable\": \"QEL_PATH_2026\", \"variableValue\": null"}},
      {"SdkPathMissing",
       [](SdkSandbox& s) { SetSdkLocation(s.scratch() / L"gone\\StandInSdk.dll"); },
       0,
       {"ok    sdk.location", "warn  sdk.file", "skip  sdk.signature", "skip  sdk.export.Initialize",
        "ok    result                   InitializeQel would return true with"},
       {"\"initializeQel\": true", "\"sdkLock\": false", "{\"id\": \"sdk.file\", \"verdict\": \"warn\"",
        "the installer would not lock it: the SDK file"}},
      {"StaleLockFile",
       [](SdkSandbox& s) { s.programData().WriteLock(Pid() + "\r\n"); },
       0,
       {"info  sdk.selfUpdateLock", "ok    result"},
       {"\"present\": true", "\"processId\": null, \"running\": false", "\"sdkLock\": true"}},
      {"LiveLockFile",
       [](SdkSandbox& s) { s.programData().WriteLock(Pid()); },
       0,
       {"warn  sdk.selfUpdateLock       process " + Pid() + " is running", "ok    result"},
       {"\"processId\": " + Pid() + ", \"running\": true", "\"sdkLock\": false", "the installer is updating itself"}},
      {"UnsignedSdk",
       [](SdkSandbox&) { SetSdkLocation(StandInKind::Unsigned); },
       0,
       {"ok    sdk.file", "warn  sdk.signature", "skip  sdk.publisher", "ok    sdk.export.Initialize", "ok    result"},
       {"{\"id\": \"sdk.signature\", \"verdict\": \"warn\"", "\"verified\": false", "\"sdkLock\": false"}},
      {"TamperedSdk",
       [](SdkSandbox&) { SetSdkLocation(StandInKind::Tampered); },
       0,
       {"warn  sdk.signature", "skip  sdk.publisher", "ok    result"},
       {"\"verified\": false", "\"sdkLock\": false"}},
      {"OtherPublisherSdk",
       [](SdkSandbox&) { SetSdkLocation(StandInKind::OtherPublisher); },
       0,
       {"ok    sdk.signature", "warn  sdk.publisher", "ok    result"},
       {"\"publisher\": \"Tavrel, Inc\", \"found\": false, \"error\": 2148081668", "\"sdkLock\": false"}},
      {"MissingExport",
       [](SdkSandbox&) { SetSdkLocation(StandInKind::NoLockDirectory); },
       0,
       {"ok    sdk.publisher", "ok    sdk.export.Initialize", "warn  sdk.export.LockDirectory",
        "ok    sdk.export.UnLockDirectory", "ok    result"},
       {"{\"id\": \"sdk.export.LockDirectory\", \"verdict\": \"warn\", \"text\": \"not exported\", \"evidence\": {\"present\": false}}",
        "\"sdkLock\": false", "does not export LockDirectory"}},
      // Every check of the wrapper passes; the 64-bit host's LoadLibraryW then refuses it (193).
      {"ThirtyTwoBitSdk",
       [](SdkSandbox&) { SetSdkLocation(StandInKind::ThirtyTwoBit); },
       0,
       {"ok    sdk.signature", "ok    sdk.publisher",
        "warn  sdk.machine              x86 (0x014C): LoadLibraryW in an x64 host refuses it (error 193",
        "ok    sdk.export.Initialize", "ok    result                   InitializeQel would return true with"},
       {"{\"id\": \"sdk.machine\", \"verdict\": \"warn\"",
        "\"machine\": \"x86\", \"machineCode\": 332, \"hostMachine\": \"x64\", \"loadable\": false",
        "\"sdkLock\": false",
        "the installer would not lock it: the SDK file is an x86 DLL, which LoadLibraryW in an x64 host refuses (error 193)"}},
      {"MarkerAlreadySet",
       [](SdkSandbox& s) { s.env().Set(kMarker, L"1"); },
       0,
       {"info  marker", "ok    result                   InitializeQel would return true without the installer"},
       {"\"variable\": \"QEL_INITIALIZE_BYPASSED\", \"present\": true, \"value\": \"1\"", "\"initializeQel\": true"}},
      // "C:" and "." make "C:\.", an existing folder one character too short.
      {"TooShortFromTheRegistry",
       [](SdkSandbox&) {
         RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", L"C:");
         SdkSandbox::SetVersion(L".");
       },
       1,
       {"ok    registry.version", "fail  location                 \"C:\\.\" is too short", "skip  path",
        "fail  result                   InitializeQel would return false: the registry's folder \"C:\\.\""},
       {"\"initializeQel\": false", "\"sdkLock\": false", "\"location\": null"}},
      {"TooShortFromTheOverride",
       [](SdkSandbox& s) { s.OverrideLocation(L"C:\\x"); },
       1,
       {"info  registry.override", "skip  registry.installPath", "skip  registry.version", "fail  location",
        "fail  result                   InitializeQel would return false: QEL_PATH_2026 = \"C:\\x\" is too short"},
       {"\"initializeQel\": false", "\"variableValue\": \"C:\\\\x\""}},
  };
  return rows;
}

class DiagnoseRow : public ::testing::TestWithParam<Row> {};

TEST_P(DiagnoseRow, TextAndJsonGiveTheVerdicts) {
  const Row& row = GetParam();
  SdkSandbox sandbox(SdkSandbox::Contents::Installed);
  row.arrange(sandbox);

  const ProcessResult text = RunDiagnose(sandbox);
  EXPECT_EQ(text.exitCode, row.exitCode) << text.output;
  for (const std::string& line : row.lines)
    EXPECT_TRUE(HasLineStarting(text.output, line)) << line << "\n" << text.output;

  const ProcessResult json = RunDiagnose(sandbox, L"--json");
  EXPECT_EQ(json.exitCode, row.exitCode) << json.output;
  for (const std::string& fragment : row.json)
    EXPECT_NE(json.output.find(fragment), std::string::npos) << fragment << "\n" << json.output;

  // A look changes nothing: no log, the SDK never loaded, no marker for the caller.
  EXPECT_FALSE(sandbox.log().LogExists());
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());
  std::printf("---- %s\n%s", row.name, text.output.c_str());
}

INSTANTIATE_TEST_SUITE_P(Machines, DiagnoseRow, ::testing::ValuesIn(Rows()),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

// What the program's JSON says InitializeQel would do.
struct Prediction {
  bool initializeQel = false;
  bool sdkLock = false;
  std::wstring location;  // empty for null
};

// The JSON string that starts at `at` (after its opening quote), unescaped;
// the program escapes only quotes, backslashes and control characters, and
// paths hold none of the latter.
std::string JsonStringAt(const std::string& json, std::size_t at) {
  std::string text;
  for (std::size_t i = at; i < json.size() && json[i] != '"'; ++i) text += json[i] == '\\' ? json[++i] : json[i];
  return text;
}

Prediction PredictionIn(const std::string& json) {
  const std::size_t result = json.find("\"result\": {");
  if (result == std::string::npos) throw std::runtime_error("no result in:\n" + json);
  const std::string tail = json.substr(result);
  Prediction prediction;
  prediction.initializeQel = tail.find("\"initializeQel\": true") != std::string::npos;
  prediction.sdkLock = tail.find("\"sdkLock\": true") != std::string::npos;
  const std::string locationKey = "\"location\": \"";
  if (const std::size_t at = tail.find(locationKey); at != std::string::npos)
    prediction.location = Widen(JsonStringAt(tail, at + locationKey.size()));
  return prediction;
}

// The directory the stand-in SDK locked with success ("LockDirectory", id,
// directory, result 0), if it did.
std::optional<std::string> LockedDirectory(const SdkSandbox& sandbox) {
  for (const std::string& call : sandbox.sdk().Calls()) {
    std::vector<std::string> fields;
    std::size_t start = 0;
    for (std::size_t tab = call.find('\t'); tab != std::string::npos; start = tab + 1, tab = call.find('\t', start))
      fields.push_back(call.substr(start, tab - start));
    fields.push_back(call.substr(start));
    if (fields.size() == 4 && fields[0] == "LockDirectory" && fields[3] == "0") return fields[2];
  }
  return std::nullopt;
}

class DiagnoseAgreesWithTheBootstrap : public ::testing::TestWithParam<Row> {
 protected:
  void SetUp() override { SharedDllPath().clear(); }
  void TearDown() override { SharedDllPath().clear(); }
};

TEST_P(DiagnoseAgreesWithTheBootstrap, ResultFolderAndLock) {
  const Row& row = GetParam();
  SdkSandbox sandbox(SdkSandbox::Contents::Installed);
  row.arrange(sandbox);

  const ProcessResult json = RunDiagnose(sandbox, L"--json");
  const Prediction predicted = PredictionIn(json.output);

  const bool result = InitializeQel();
  const std::wstring folder = OSxFolder::GetSharedDllPath();
  EXPECT_EQ(predicted.initializeQel, result) << json.output;
  EXPECT_EQ(predicted.location, folder) << json.output;
  const std::optional<std::string> locked = LockedDirectory(sandbox);
  EXPECT_EQ(predicted.sdkLock, locked.has_value()) << json.output << "\n"
                                                   << ::testing::PrintToString(sandbox.sdk().Calls());
  // The session locks the folder it hands out, with one backslash appended.
  if (locked && result) EXPECT_EQ(*locked, Narrow(folder) + "\\");
}

INSTANTIATE_TEST_SUITE_P(Machines, DiagnoseAgreesWithTheBootstrap, ::testing::ValuesIn(Rows()),
                         [](const ::testing::TestParamInfo<Row>& info) { return std::string(info.param.name); });

TEST(Diagnose, ChecksComeInTheBootstrapsOrder) {
  SdkSandbox sandbox(SdkSandbox::Contents::Installed);
  const ProcessResult result = RunDiagnose(sandbox);
  std::vector<std::string> ids;
  for (const std::string& line : SplitLines(result.output)) {
    const auto start = line.find_first_not_of(' ', 6);
    ids.push_back(line.substr(start, line.find(' ', start) - start));
  }
  const std::vector<std::string> expected = {"library",
                                             "library.version",
                                             "library.signature",
                                             "edition",
                                             "marker",
                                             "sdk.selfUpdateLock",
                                             "sdk.location",
                                             "sdk.expanded",
                                             "sdk.file",
                                             "sdk.signature",
                                             "sdk.publisher",
                                             "sdk.machine",
                                             "sdk.export.Initialize",
                                             "sdk.export.ReleaseMemory",
                                             "sdk.export.Uninitialize",
                                             "sdk.export.LockDirectory",
                                             "sdk.export.UnLockDirectory",
                                             "registry.key",
                                             "registry.override",
                                             "registry.installPath",
                                             "registry.version",
                                             "location",
                                             "path",
                                             "result"};
  EXPECT_EQ(ids, expected) << result.output;
}

// The library's own signature, judged on signed and tampered DLLs named by
// --library (the stand-in SDK's copies): one more line, the same exit code.
TEST(Diagnose, ReportsWhetherTheLibraryIsSignedAndByWhom) {
  SdkSandbox sandbox(SdkSandbox::Contents::Installed);
  const std::string signer = "CN=Tavrel Test Code Signing, O=\"Tavrel, Inc\"";
  const std::wstring signedDll = L"--library \"" + StandInSdkPath(StandInKind::Signed) + L"\"";
  const ProcessResult text = RunDiagnose(sandbox, signedDll);
  EXPECT_EQ(text.exitCode, 0u) << text.output;
  EXPECT_TRUE(
      HasLineStarting(text.output, "ok    library.signature        signed by \"" + signer + "\" (WinVerifyTrust 0)"))
      << text.output;
  const ProcessResult json = RunDiagnose(sandbox, signedDll + L" --json");
  EXPECT_EQ(json.exitCode, 0u) << json.output;
  EXPECT_NE(
      json.output.find("\"status\": 0, \"statusHex\": \"0x00000000\", \"verified\": true, \"signer\": \"CN=Tavrel "
                       "Test Code Signing, O=\\\"Tavrel, Inc\\\"\"}"),
      std::string::npos)
      << json.output;

  const ProcessResult tampered = RunDiagnose(sandbox, L"--library \"" + StandInSdkPath(StandInKind::Tampered) + L"\"");
  EXPECT_EQ(tampered.exitCode, 0u) << tampered.output;
  EXPECT_TRUE(HasLineStarting(tampered.output, "warn  library.signature        signed by \"" + signer +
                                                   "\", but the signature does not verify (WinVerifyTrust 0x80096010)"))
      << tampered.output;
  std::printf("---- signed library\n%s", text.output.c_str());
}

TEST(Diagnose, WithSdkRunsOneSessionAndReportsItsCodes) {
  SdkSandbox sandbox(SdkSandbox::Contents::Installed);
  const ProcessResult result = RunDiagnose(sandbox, L"--with-sdk");
  EXPECT_EQ(result.exitCode, 0u) << result.output;
  const std::string lockPath = Narrow(sandbox.sharedDir()) + "\\";
  EXPECT_TRUE(HasLineStarting(result.output, "sdk      Initialize(QEL, 2026, neutral) -> 0")) << result.output;
  EXPECT_TRUE(HasLineStarting(result.output, "sdk      LockDirectory(" + lockPath + ") -> 0")) << result.output;
  EXPECT_TRUE(HasLineStarting(result.output,
                              "session  LockInstallLocation -> 0, location \"" + Narrow(sandbox.sharedDir()) + "\""))
      << result.output;
  EXPECT_TRUE(HasLineStarting(result.output, "sdk      Uninitialize() -> 0")) << result.output;
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
  EXPECT_TRUE(sandbox.log().LogExists());  // the session's wrapper logs, as the usage text says
}

TEST(Diagnose, WithSdkPassesTheSessionMessagesThrough) {
  SdkSandbox sandbox(SdkSandbox::Contents::Installed);
  sandbox.sdk().SetResult("LockDirectory", 5);
  const ProcessResult result = RunDiagnose(sandbox, L"--with-sdk");
  EXPECT_TRUE(HasLineStarting(result.output, "sdk      LockDirectory(")) << result.output;
  EXPECT_NE(result.output.find("session  [WARN] Failed to lock"), std::string::npos) << result.output;
  EXPECT_NE(result.output.find("HALDO SDK wrapper status code : 5"), std::string::npos) << result.output;
}

// The shipped program has no way to read another registry: the option that
// redirects HKLM is the test build's alone.
TEST(Diagnose, TheShippedProgramHasNoRegistrySandbox) {
  SdkSandbox sandbox(SdkSandbox::Contents::Installed);
  const ProcessResult shipped =
      RunProcess(ShippedProgram(), L"--registry-sandbox \"" + sandbox.registry().ScratchKeyPath() + L"\" --json");
  EXPECT_EQ(shipped.exitCode, 2u) << shipped.output;
  EXPECT_NE(shipped.output.find("unknown argument --registry-sandbox"), std::string::npos) << shipped.output;
  EXPECT_EQ(RunDiagnose(sandbox, L"--json").exitCode, 0u);
}

// Its own version and the judged library's, plainly when they differ: a DLL
// with another version resource stands in for another release of Ambrel.
TEST(Diagnose, SaysWhenTheJudgedLibraryIsAnotherVersion) {
  SdkSandbox sandbox(SdkSandbox::Contents::Installed);
  const std::wstring other = L"--library \"" + TestBinDirectory() + L"\\other_version\\Ambrel.dll\"";
  const ProcessResult text = RunDiagnose(sandbox, other);
  EXPECT_TRUE(HasLineStarting(
      text.output, "warn  library.version          versions differ: ambrel-diagnose " AMBREL_VERSION_TEXT
                   " judges with the code of Ambrel " AMBREL_VERSION_TEXT ", but the judged Ambrel.dll is 9.8.7.6"))
      << text.output;
  const ProcessResult json = RunDiagnose(sandbox, other + L" --json");
  EXPECT_NE(json.output.find("\"toolVersion\": \"" AMBREL_VERSION_TEXT "\""), std::string::npos) << json.output;
  EXPECT_NE(json.output.find("\"evidence\": {\"toolVersion\": \"" AMBREL_VERSION_TEXT
                             "\", \"libraryVersion\": \"9.8.7.6\", \"same\": false}"),
            std::string::npos)
      << json.output;
  std::printf("---- another version of the library\n%s", text.output.c_str());
}

TEST(Diagnose, BadUsageExitsWithTwo) {
  EXPECT_EQ(RunProcess(DiagnoseProgram(), L"--frobnicate").exitCode, 2u);
  EXPECT_EQ(RunProcess(DiagnoseProgram(), L"--library").exitCode, 2u);
  EXPECT_EQ(RunProcess(DiagnoseProgram(), L"--registry-sandbox NoSuchKey\\Anywhere").exitCode, 2u);
}

}  // namespace
}  // namespace ambrel::test
