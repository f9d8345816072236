// The wrapper over misbehaving SDKs: each export missing, each export
// answering odd codes, and session ids of 0 bytes and 64 KiB. Every row runs
// one whole conversation (Initialize, LockDirectory, UnLockDirectory,
// Uninitialize) and checks the four results, the log and the SDK's calls.
#include <climits>
#include <string>
#include <vector>

#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "tests/haldo_sdk/WrapperTest.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAreArray;

const std::string kDirectory = "C:\\Shared\\1.0\\";
const std::string kNotInitialized = "[ERROR] HALDOAPIWrapperImpl::Uninitialize: Not initialized!";
const std::string kId = StandInSdk::kDefaultSessionId;

std::string IdLine(const std::string& id) { return "[INFO] HALDOAPIWrapperImpl::Initialize: session id = " + id; }
std::string Code(int value) { return std::to_string(value); }

struct Outcome {
  int initialize, lock, unlock, uninitialize;
  bool initializedAfter;
  bool loadedAfter;
  std::vector<std::string> log;    // after the separator, the arguments line and the path line
  std::vector<std::string> calls;  // the SDK's record
};

// Runs the conversation and compares with `expected`; `sdkPath` names the
// copy in use for the path line.
void RunConversation(QelHaldoSdkWrapperImpl& wrapper, const WrapperLogFolder& log, const StandInSdk& sdk,
                     const std::string& sdkPath, const Outcome& expected) {
  EXPECT_EQ(wrapper.Initialize("QEL", "2026", "neutral"), expected.initialize);
  EXPECT_EQ(wrapper.LockDirectory(kDirectory), expected.lock);
  EXPECT_EQ(wrapper.UnLockDirectory(kDirectory), expected.unlock);
  EXPECT_EQ(wrapper.Uninitialize(), expected.uninitialize);
  EXPECT_EQ(wrapper.IsInitialized(), expected.initializedAfter);
  EXPECT_EQ(WrapperState().module.get() != nullptr, expected.loadedAfter);

  std::vector<std::string> lines = {kLogSeparator, kArgsLine, "[INFO] Load: HALDO SDK path = " + sdkPath};
  lines.insert(lines.end(), expected.log.begin(), expected.log.end());
  EXPECT_THAT(log.Messages(), ElementsAreArray(lines));
  EXPECT_THAT(sdk.Calls(), ElementsAreArray(expected.calls));
}

// ---- each export missing

struct MissingRow {
  StandInKind kind;
  Outcome outcome;
};

std::vector<MissingRow> MissingRows() {
  const std::string lock = "LockDirectory\t" + kId + "\t" + kDirectory + "\t0";
  const std::string unlock = "UnLockDirectory\t" + kId + "\t" + kDirectory + "\t0";
  const std::string init = "Initialize\tQEL\t2026\tneutral\tnull\t0";
  const std::string release = "ReleaseMemory\t" + kId + "\thanded-out";
  return {
      // No session: the lock calls still reach the loaded SDK, with an empty id.
      {StandInKind::NoInitialize,
       {4,
        0,
        0,
        7,
        false,
        true,
        {kLoadedLine, "[ERROR] HALDOAPIWrapperImpl::Initialize: Failed to obtain InitializeFunc handle!",
         kNotInitialized},
        {"LockDirectory\t\t" + kDirectory + "\t0", "UnLockDirectory\t\t" + kDirectory + "\t0"}}},
      {StandInKind::NoReleaseMemory,
       {0,
        0,
        0,
        0,
        false,
        false,
        {kLoadedLine, IdLine(kId),
         "[ERROR] HALDOAPIWrapperImpl::ReleaseMemory: Failed to obtain ReleaseMemoryFunc handle!", kUnloadedLine},
        {init, lock, unlock, "Uninitialize\t" + kId + "\t0"}}},
      // The module stays loaded and the session held.
      {StandInKind::NoUninitialize,
       {0,
        0,
        0,
        4,
        true,
        true,
        {kLoadedLine, IdLine(kId),
         "[ERROR] HALDOAPIWrapperImpl::Uninitialize: Failed to obtain UninitializeFunc handle!"},
        {init, release, lock, unlock}}},
      {StandInKind::NoLockDirectory,
       {0,
        4,
        0,
        0,
        false,
        false,
        {kLoadedLine, IdLine(kId),
         "[ERROR] HALDOAPIWrapperImpl::LockDirectory: Failed to obtain LockDirectoryFunc handle!", kUnloadedLine},
        {init, release, unlock, "Uninitialize\t" + kId + "\t0"}}},
      {StandInKind::NoUnLockDirectory,
       {0,
        0,
        4,
        0,
        false,
        false,
        {kLoadedLine, IdLine(kId),
         "[ERROR] HALDOAPIWrapperImpl::UnLockDirectory: Failed to obtain UnLockDirectoryFunc handle!", kUnloadedLine},
        {init, release, lock, "Uninitialize\t" + kId + "\t0"}}},
  };
}

class MissingExportTest : public WrapperTest, public ::testing::WithParamInterface<MissingRow> {};

TEST_P(MissingExportTest, WholeConversation) {
  SetSdkLocation(GetParam().kind);
  RunConversation(wrapper_, sandbox_.log(), sandbox_.sdk(), SdkPath(GetParam().kind), GetParam().outcome);
}

INSTANTIATE_TEST_SUITE_P(Exports, MissingExportTest, ::testing::ValuesIn(MissingRows()),
                         [](const auto& info) { return std::string(StandInKindName(info.param.kind)); });

// ---- each export answering an odd code

struct CodeRow {
  std::string exportName;
  int value;
};

// What the conversation gives when `row.exportName` answers `row.value`.
Outcome ExpectedFor(const CodeRow& row) {
  const int v = row.value;
  const std::string init = "Initialize\tQEL\t2026\tneutral\tnull\t0";
  const std::string release = "ReleaseMemory\t" + kId + "\thanded-out";
  const std::string lock = "LockDirectory\t" + kId + "\t" + kDirectory + "\t0";
  const std::string unlock = "UnLockDirectory\t" + kId + "\t" + kDirectory + "\t0";
  const std::string uninit = "Uninitialize\t" + kId + "\t0";
  if (row.exportName == "Initialize") {
    // Passed through; no session, so ReleaseMemory gets an empty id and the
    // null slot, and the locks go out with an empty id.
    return {v,
            0,
            0,
            7,
            false,
            true,
            {kLoadedLine, kNotInitialized},
            {"Initialize\tQEL\t2026\tneutral\tnull\t" + Code(v), "ReleaseMemory\t\tnull",
             "LockDirectory\t\t" + kDirectory + "\t0", "UnLockDirectory\t\t" + kDirectory + "\t0"}};
  }
  if (row.exportName == "ReleaseMemory") {  // its answer is ignored
    return {0, 0, 0, 0, false, false, {kLoadedLine, IdLine(kId), kUnloadedLine}, {init, release, lock, unlock, uninit}};
  }
  if (row.exportName == "LockDirectory") {
    return {0,
            v,
            0,
            0,
            false,
            false,
            {kLoadedLine, IdLine(kId), "[ERROR] HALDOAPIWrapperImpl::LockDirectory: API returned error code " + Code(v),
             kUnloadedLine},
            {init, release, "LockDirectory\t" + kId + "\t" + kDirectory + "\t" + Code(v), unlock, uninit}};
  }
  if (row.exportName == "UnLockDirectory") {
    return {0,
            0,
            v,
            0,
            false,
            false,
            {kLoadedLine, IdLine(kId),
             "[ERROR] HALDOAPIWrapperImpl::UnLockDirectory: API returned error code " + Code(v), kUnloadedLine},
            {init, release, lock, "UnLockDirectory\t" + kId + "\t" + kDirectory + "\t" + Code(v), uninit}};
  }
  // Uninitialize: passed through, the session kept, the SDK unloaded all the same.
  return {0,
          0,
          0,
          v,
          true,
          false,
          {kLoadedLine, IdLine(kId), kUnloadedLine},
          {init, release, lock, unlock, "Uninitialize\t" + kId + "\t" + Code(v)}};
}

std::vector<CodeRow> CodeRows() {
  std::vector<CodeRow> rows;
  for (const char* name : {"Initialize", "ReleaseMemory", "Uninitialize", "LockDirectory", "UnLockDirectory"})
    for (int value : {1, 2, -1, INT_MIN, INT_MAX}) rows.push_back({name, value});
  return rows;
}

class ExportCodeTest : public WrapperTest, public ::testing::WithParamInterface<CodeRow> {};

TEST_P(ExportCodeTest, WholeConversation) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.sdk().SetResult(GetParam().exportName, GetParam().value);
  RunConversation(wrapper_, sandbox_.log(), sandbox_.sdk(), SdkPath(StandInKind::Signed), ExpectedFor(GetParam()));
}

INSTANTIATE_TEST_SUITE_P(Codes, ExportCodeTest, ::testing::ValuesIn(CodeRows()), [](const auto& info) {
  const int v = info.param.value;
  const std::string value = v == INT_MIN ? "IntMin" : v == INT_MAX ? "IntMax" : v < 0 ? "Minus1" : Code(v);
  return info.param.exportName + "_" + value;
});

// ---- session ids of unusual size

using SessionIdSizeTest = WrapperTest;

// An empty id is a success of the SDK but holds no session: the wrapper
// counts as uninitialised, so the locks go out with the empty id and
// Uninitialize finds nothing to end.
TEST_F(SessionIdSizeTest, EmptyIdIsASuccessThatHoldsNoSession) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.sdk().SetSessionId("");
  RunConversation(wrapper_, sandbox_.log(), sandbox_.sdk(), SdkPath(StandInKind::Signed),
                  {0,
                   0,
                   0,
                   7,
                   false,
                   true,
                   {kLoadedLine, IdLine(""), kNotInitialized},
                   {"Initialize\tQEL\t2026\tneutral\tnull\t0", "ReleaseMemory\t\thanded-out",
                    "LockDirectory\t\t" + kDirectory + "\t0", "UnLockDirectory\t\t" + kDirectory + "\t0"}});
  // A second Initialize is not refused with 2: there is no session to keep.
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
}

TEST_F(SessionIdSizeTest, IdOf64KiBIsKeptWhole) {
  SetSdkLocation(StandInKind::Signed);
  std::string id(64 * 1024, 'x');
  for (size_t i = 0; i < id.size(); i += 97) id[i] = static_cast<char>('0' + (i / 97) % 10);
  sandbox_.sdk().SetSessionId(id);
  RunConversation(wrapper_, sandbox_.log(), sandbox_.sdk(), SdkPath(StandInKind::Signed),
                  {0,
                   0,
                   0,
                   0,
                   false,
                   false,
                   {kLoadedLine, IdLine(id), kUnloadedLine},
                   {"Initialize\tQEL\t2026\tneutral\tnull\t0", "ReleaseMemory\t" + id + "\thanded-out",
                    "LockDirectory\t" + id + "\t" + kDirectory + "\t0",
                    "UnLockDirectory\t" + id + "\t" + kDirectory + "\t0", "Uninitialize\t" + id + "\t0"}});
}

// The id's bytes are widened one by one; bytes from 0x80 become characters
// beyond one byte, which the log writes as '?' and keeps the record.
TEST_F(SessionIdSizeTest, NonAsciiIdBytesAreLoggedAsQuestionMarks) {
  SetSdkLocation(StandInKind::Signed);
  const std::string id = "caf\xC3\xA9-\xFF";
  sandbox_.sdk().SetSessionId(id);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_EQ(WrapperState().sessionId, id);
  // The literal is split so the compiler sees no trigraph in it.
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed),
                                                                                    "caf?"
                                                                                    "?-?")));
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
}

}  // namespace
}  // namespace ambrel::test
