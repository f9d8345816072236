#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"

#include <memory>
#include <ostream>
#include <type_traits>

#include "haldo_sdk/SdkModule.h"
#include "tests/haldo_sdk/WrapperTest.h"
#include "tests/support/ImportPatch.h"

namespace ambrel::test {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

// An instance is its virtual-table pointer and nothing else.
static_assert(sizeof(QelHaldoSdkWrapperImpl) == sizeof(void*));
static_assert(std::is_base_of_v<QelHaldoSdkWrapperInterface, QelHaldoSdkWrapperImpl>);
static_assert(std::has_virtual_destructor_v<QelHaldoSdkWrapperInterface>);

std::vector<std::string> Concat(std::vector<std::string> a, const std::vector<std::string>& b) {
  a.insert(a.end(), b.begin(), b.end());
  return a;
}

// ---- Initialize

using WrapperInitializeTest = WrapperTest;

// A session id the SDK hands out: its default and one a test sets.
struct SessionIdCase {
  const char* name;
  std::string sessionId;
};

// Named in the test list and failure messages by its case name.
void PrintTo(const SessionIdCase& c, std::ostream* os) { *os << c.name; }

class SuccessfulInitializeTest : public WrapperTest, public ::testing::WithParamInterface<SessionIdCase> {};

TEST_P(SuccessfulInitializeTest, WritesTheFullSequenceAndKeepsTheSessionIdTheSdkReturned) {
  const std::string& id = GetParam().sessionId;
  SetSdkLocation(StandInKind::Signed);
  if (id != StandInSdk::kDefaultSessionId) sandbox_.sdk().SetSessionId(id);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_TRUE(wrapper_.IsInitialized());
  EXPECT_EQ(WrapperState().sessionId, id);
  EXPECT_NE(WrapperState().module.get(), nullptr);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(SdkPath(StandInKind::Signed), id)));
  // The session-id slot is null when the SDK gets it, and the memory it handed
  // out goes back to it through ReleaseMemory.
  EXPECT_THAT(sandbox_.sdk().Calls(),
              ElementsAre("Initialize\tQEL\t2026\tneutral\tnull\t0", "ReleaseMemory\t" + id + "\thanded-out"));
}

INSTANTIATE_TEST_SUITE_P(SessionIds, SuccessfulInitializeTest,
                         ::testing::Values(SessionIdCase{"TheStandInsDefault", StandInSdk::kDefaultSessionId},
                                           SessionIdCase{"AnotherTheSdkReturned", "3f2a-77"}),
                         [](const ::testing::TestParamInfo<SessionIdCase>& info) { return info.param.name; });

TEST_F(WrapperInitializeTest, EveryRecordCarriesATimestampOfTheDocumentedShape) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  const auto lines = sandbox_.log().Lines();
  ASSERT_EQ(lines.size(), 5u);
  EXPECT_EQ(lines[0], kLogSeparator);
  for (size_t i = 1; i < lines.size(); ++i) EXPECT_TRUE(HasTimestampShape(lines[i])) << lines[i];
}

TEST_F(WrapperInitializeTest, EmptyLanguageIsAccepted) {
  SetSdkLocation(StandInKind::Signed);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", ""), 0);
  const auto messages = sandbox_.log().Messages();
  ASSERT_GE(messages.size(), 2u);
  EXPECT_EQ(messages[1], "[INFO] HALDOAPIWrapperImpl::Initialize: plc = \"QEL\", release = \"2026\", language = \"\"");
  EXPECT_THAT(sandbox_.sdk().Calls(),
              ElementsAre("Initialize\tQEL\t2026\t\tnull\t0", "ReleaseMemory\tstandin-session\thanded-out"));
}

TEST_F(WrapperInitializeTest, EmptyReleaseReturns5WithTheSeparatorAndOneErrorLine) {
  SetSdkLocation(StandInKind::Signed);
  EXPECT_EQ(wrapper_.Initialize("QEL", "", "neutral"), 5);
  EXPECT_FALSE(wrapper_.IsInitialized());
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator,
                          "[ERROR] HALDOAPIWrapperImpl::Initialize: Either \"plc\" or \"release\" argument absent!"));
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());  // not even loaded
}

TEST_F(WrapperInitializeTest, EmptyPlcReturns5WithTheSeparatorAndOneErrorLine) {
  SetSdkLocation(StandInKind::Signed);
  EXPECT_EQ(wrapper_.Initialize("", "2026", "neutral"), 5);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator,
                          "[ERROR] HALDOAPIWrapperImpl::Initialize: Either \"plc\" or \"release\" argument absent!"));
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
}

TEST_F(WrapperInitializeTest, SecondInitializeReturns2AndWritesNothing) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  const auto before = sandbox_.log().Lines();
  const auto callsBefore = sandbox_.sdk().Calls(true);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 2);
  EXPECT_EQ(wrapper_.Initialize("OTHER", "1999", "de"), 2);
  EXPECT_EQ(sandbox_.log().Lines(), before);
  EXPECT_EQ(sandbox_.sdk().Calls(true), callsBefore);
}

TEST_F(WrapperInitializeTest, SecondInitializeDoesNotEvenOpenTheLog) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  // Were the log opened, its path would now point into the new folder.
  WrapperLogFolder elsewhere;
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 2);
  EXPECT_FALSE(elsewhere.LogExists());
  EXPECT_EQ(WrapperState().logPath, sandbox_.log().LogFile());
}

TEST_F(WrapperInitializeTest, SdkInitializeFailingWith12StillReleasesMemoryWithAnEmptyId) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.sdk().SetResult("Initialize", 12);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 12);
  EXPECT_FALSE(wrapper_.IsInitialized());
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, kArgsLine, "[INFO] Load: HALDO SDK path = " + SdkPath(StandInKind::Signed),
                          kLoadedLine));
  // The slot was null going in, and the SDK wrote nothing, so null comes back.
  EXPECT_THAT(sandbox_.sdk().Calls(), ElementsAre("Initialize\tQEL\t2026\tneutral\tnull\t12", "ReleaseMemory\t\tnull"));
  EXPECT_NE(WrapperState().module.get(), nullptr);  // stays loaded
}

TEST_F(WrapperInitializeTest, AfterAFailedSdkInitializeTheNextOneSkipsLoading) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.sdk().SetResult("Initialize", 12);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 12);
  sandbox_.log().Clear();
  sandbox_.sdk().ClearCalls();
  sandbox_.sdk().SetResult("Initialize", 0);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, kArgsLine, kLoadedLine,
                          "[INFO] HALDOAPIWrapperImpl::Initialize: session id = standin-session"));
  // No second load: no attach, only the two calls.
  EXPECT_THAT(sandbox_.sdk().Calls(true),
              ElementsAre("Initialize\tQEL\t2026\tneutral\tnull\t0", "ReleaseMemory\tstandin-session\thanded-out"));
}

TEST_F(WrapperInitializeTest, LoadFailureReturnsTheLoadCodeWithTheTrailingBlankLine) {
  // No registry key at all: code 3.
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 3);
  const auto messages = sandbox_.log().Messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "[ERROR] HALDOAPIWrapperImpl::Initialize: Failed to load SDK! ");
  EXPECT_FALSE(wrapper_.IsInitialized());
}

TEST_F(WrapperInitializeTest, MissingInitializeExportReturns4WithoutReleasingMemory) {
  SetSdkLocation(StandInKind::NoInitialize);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 4);
  EXPECT_THAT(
      sandbox_.log().Messages(),
      ElementsAre(kLogSeparator, kArgsLine, "[INFO] Load: HALDO SDK path = " + SdkPath(StandInKind::NoInitialize),
                  kLoadedLine, "[ERROR] HALDOAPIWrapperImpl::Initialize: Failed to obtain InitializeFunc handle!"));
  EXPECT_THAT(sandbox_.sdk().Calls(), IsEmpty());
  EXPECT_NE(WrapperState().module.get(), nullptr);
}

TEST_F(WrapperInitializeTest, MissingReleaseMemoryExportIsLoggedAndTheSdkResultStillReturned) {
  SetSdkLocation(StandInKind::NoReleaseMemory);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_TRUE(wrapper_.IsInitialized());
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(
                  Concat(SuccessfulInitializeLines(SdkPath(StandInKind::NoReleaseMemory)),
                         {"[ERROR] HALDOAPIWrapperImpl::ReleaseMemory: Failed to obtain ReleaseMemoryFunc handle!"})));
  EXPECT_THAT(sandbox_.sdk().Calls(), ElementsAre("Initialize\tQEL\t2026\tneutral\tnull\t0"));
}

TEST_F(WrapperInitializeTest, MissingReleaseMemoryExportAfterAFailedSdkInitializeReturnsTheSdkCode) {
  SetSdkLocation(StandInKind::NoReleaseMemory);
  sandbox_.sdk().SetResult("Initialize", 31);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 31);
  const auto messages = sandbox_.log().Messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "[ERROR] HALDOAPIWrapperImpl::ReleaseMemory: Failed to obtain ReleaseMemoryFunc handle!");
}

TEST_F(WrapperInitializeTest, TwoAttemptsWriteTwoSeparatorsAndAThirdAfterSuccessNone) {
  SetSdkLocation(StandInKind::Signed);
  EXPECT_EQ(wrapper_.Initialize("QEL", "", "neutral"), 5);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 2);
  const auto expected =
      Concat({kLogSeparator, "[ERROR] HALDOAPIWrapperImpl::Initialize: Either \"plc\" or \"release\" argument absent!"},
             SuccessfulInitializeLines(SdkPath(StandInKind::Signed)));
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(expected));
}

// ---- IsInitialized, CreateInstance

using WrapperInstanceTest = WrapperTest;

TEST_F(WrapperInstanceTest, IsInitializedLogsNothingAndCallsNothing) {
  EXPECT_FALSE(wrapper_.IsInitialized());
  EXPECT_FALSE(sandbox_.log().LogExists());
  EXPECT_THAT(sandbox_.sdk().Calls(true), IsEmpty());
}

TEST_F(WrapperInstanceTest, CreateInstanceSharesTheOneState) {
  SetSdkLocation(StandInKind::Signed);
  std::unique_ptr<QelHaldoSdkWrapperInterface> other(wrapper_.CreateInstance());
  ASSERT_NE(other, nullptr);
  EXPECT_NE(other.get(), static_cast<QelHaldoSdkWrapperInterface*>(&wrapper_));
  EXPECT_NE(dynamic_cast<QelHaldoSdkWrapperImpl*>(other.get()), nullptr);
  ASSERT_EQ(other->Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_TRUE(wrapper_.IsInitialized());
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 2);
  // Destroying a wrapper leaves the session and the module alone: the SDK
  // stays loaded, attached once and never detached.
  other.reset();
  EXPECT_TRUE(wrapper_.IsInitialized());
  EXPECT_NE(::GetModuleHandleW(StandInSdkPath(StandInKind::Signed).c_str()), nullptr);
  EXPECT_THAT(sandbox_.sdk().Calls(true), ElementsAre("Attach", "Initialize\tQEL\t2026\tneutral\tnull\t0",
                                                      "ReleaseMemory\tstandin-session\thanded-out"));
}

TEST_F(WrapperInstanceTest, CallsThroughTheInterfaceReachTheImplementation) {
  SetSdkLocation(StandInKind::Signed);
  std::unique_ptr<QelHaldoSdkWrapperInterface> wrapper(new QelHaldoSdkWrapperImpl());
  EXPECT_EQ(wrapper->Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_TRUE(wrapper->IsInitialized());
  EXPECT_EQ(wrapper->LockDirectory("C:\\Qel"), 0);
  EXPECT_EQ(wrapper->UnLockDirectory("C:\\Qel"), 0);
  EXPECT_EQ(wrapper->Uninitialize(), 0);
  EXPECT_FALSE(wrapper->IsInitialized());
  EXPECT_THAT(sandbox_.sdk().Calls(),
              ElementsAre("Initialize\tQEL\t2026\tneutral\tnull\t0", "ReleaseMemory\tstandin-session\thanded-out",
                          "LockDirectory\tstandin-session\tC:\\Qel\t0", "UnLockDirectory\tstandin-session\tC:\\Qel\t0",
                          "Uninitialize\tstandin-session\t0"));
}

// ---- LockDirectory / UnLockDirectory

using WrapperLockTest = WrapperTest;

TEST_F(WrapperLockTest, LockBeforeInitializeReturns4AfterASeparator) {
  EXPECT_EQ(wrapper_.LockDirectory("C:\\Qel\\2026"), 4);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator,
                          "[ERROR] HALDOAPIWrapperImpl::LockDirectory: Failed to obtain LockDirectoryFunc handle!"));
}

TEST_F(WrapperLockTest, UnLockBeforeInitializeReturns4AfterASeparator) {
  EXPECT_EQ(wrapper_.UnLockDirectory("C:\\Qel\\2026"), 4);
  EXPECT_THAT(
      sandbox_.log().Messages(),
      ElementsAre(kLogSeparator,
                  "[ERROR] HALDOAPIWrapperImpl::UnLockDirectory: Failed to obtain UnLockDirectoryFunc handle!"));
}

TEST_F(WrapperLockTest, EmptyDirectoryReturns5) {
  EXPECT_EQ(wrapper_.LockDirectory(""), 5);
  EXPECT_EQ(wrapper_.UnLockDirectory(""), 5);
  EXPECT_THAT(
      sandbox_.log().Messages(),
      ElementsAre(kLogSeparator, "[ERROR] HALDOAPIWrapperImpl::LockDirectory: Argument \"directoryToLock \" is empty!",
                  "[ERROR] HALDOAPIWrapperImpl::UnLockDirectory: Argument \"directoryToLock \" is empty!"));
}

TEST_F(WrapperLockTest, EmptyDirectoryWithASessionReturns5WithoutCallingTheSdk) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  sandbox_.sdk().ClearCalls();
  sandbox_.log().Clear();
  EXPECT_EQ(wrapper_.LockDirectory(""), 5);
  EXPECT_EQ(wrapper_.UnLockDirectory(""), 5);
  EXPECT_THAT(sandbox_.sdk().Calls(), IsEmpty());
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre("[ERROR] HALDOAPIWrapperImpl::LockDirectory: Argument \"directoryToLock \" is empty!",
                          "[ERROR] HALDOAPIWrapperImpl::UnLockDirectory: Argument \"directoryToLock \" is empty!"));
}

TEST_F(WrapperLockTest, SuccessfulLockAndUnlockPassTheSessionAndLogNothing) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  const auto before = sandbox_.log().Lines();
  sandbox_.sdk().ClearCalls();
  EXPECT_EQ(wrapper_.LockDirectory("C:\\Program Files\\Tavrel\\Qel\\2026"), 0);
  EXPECT_EQ(wrapper_.UnLockDirectory("C:\\Program Files\\Tavrel\\Qel\\2026"), 0);
  EXPECT_EQ(wrapper_.LockDirectory("C:\\Program Files\\Tavrel\\Qel\\2026"), 0);
  EXPECT_THAT(sandbox_.sdk().Calls(),
              ElementsAre("LockDirectory\tstandin-session\tC:\\Program Files\\Tavrel\\Qel\\2026\t0",
                          "UnLockDirectory\tstandin-session\tC:\\Program Files\\Tavrel\\Qel\\2026\t0",
                          "LockDirectory\tstandin-session\tC:\\Program Files\\Tavrel\\Qel\\2026\t0"));
  EXPECT_EQ(sandbox_.log().Lines(), before);
}

TEST_F(WrapperLockTest, LockReturningMinus5IsLoggedAndPassedThrough) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  sandbox_.sdk().SetResult("LockDirectory", -5);
  EXPECT_EQ(wrapper_.LockDirectory("C:\\Qel"), -5);
  const auto messages = sandbox_.log().Messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "[ERROR] HALDOAPIWrapperImpl::LockDirectory: API returned error code -5");
  EXPECT_EQ(messages.size(), 6u);
}

TEST_F(WrapperLockTest, UnLockReturningAnErrorIsLoggedAndPassedThrough) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  sandbox_.sdk().SetResult("UnLockDirectory", 1077);
  EXPECT_EQ(wrapper_.UnLockDirectory("C:\\Qel"), 1077);
  const auto messages = sandbox_.log().Messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "[ERROR] HALDOAPIWrapperImpl::UnLockDirectory: API returned error code 1077");
}

TEST_F(WrapperLockTest, LockWithTheModuleLoadedButNoSessionPassesAnEmptyId) {
  SetSdkLocation(StandInKind::Signed);
  sandbox_.sdk().SetResult("Initialize", 12);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 12);
  sandbox_.sdk().ClearCalls();
  EXPECT_EQ(wrapper_.LockDirectory("C:\\Qel"), 0);
  EXPECT_THAT(sandbox_.sdk().Calls(), ElementsAre("LockDirectory\t\tC:\\Qel\t0"));
}

TEST_F(WrapperLockTest, MissingLockExportReturns4AndTheOtherStillWorks) {
  struct Case {
    StandInKind kind;
    int lockResult;
    int unlockResult;
    std::string line;
  };
  const Case cases[] = {
      {StandInKind::NoLockDirectory, 4, 0,
       "[ERROR] HALDOAPIWrapperImpl::LockDirectory: Failed to obtain LockDirectoryFunc handle!"},
      {StandInKind::NoUnLockDirectory, 0, 4,
       "[ERROR] HALDOAPIWrapperImpl::UnLockDirectory: Failed to obtain UnLockDirectoryFunc handle!"},
  };
  for (const Case& c : cases) {
    ResetWrapperState();
    sandbox_.log().Clear();
    SetSdkLocation(c.kind);
    ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
    EXPECT_EQ(wrapper_.LockDirectory("C:\\Qel"), c.lockResult);
    EXPECT_EQ(wrapper_.UnLockDirectory("C:\\Qel"), c.unlockResult);
    EXPECT_THAT(sandbox_.log().Messages(),
                ElementsAreArray(Concat(SuccessfulInitializeLines(SdkPath(c.kind)), {c.line})));
  }
}

// ---- Uninitialize

using WrapperUninitializeTest = WrapperTest;

TEST_F(WrapperUninitializeTest, BeforeAnyInitializeReturns7AfterASeparator) {
  EXPECT_EQ(wrapper_.Uninitialize(), 7);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, "[ERROR] HALDOAPIWrapperImpl::Uninitialize: Not initialized!"));
}

TEST_F(WrapperUninitializeTest, SuccessEndsTheSessionAndUnloadsTheSdk) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
  EXPECT_FALSE(wrapper_.IsInitialized());
  EXPECT_EQ(WrapperState().module.get(), nullptr);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAreArray(Concat(SuccessfulInitializeLines(SdkPath(StandInKind::Signed)), {kUnloadedLine})));
  EXPECT_THAT(sandbox_.sdk().Calls(true),
              ElementsAre("Attach", "Initialize\tQEL\t2026\tneutral\tnull\t0",
                          "ReleaseMemory\tstandin-session\thanded-out", "Uninitialize\tstandin-session\t0", "Detach"));
  EXPECT_EQ(wrapper_.Uninitialize(), 7);
}

TEST_F(WrapperUninitializeTest, SdkFailureKeepsTheSessionButUnloads) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  sandbox_.sdk().SetResult("Uninitialize", 21);
  EXPECT_EQ(wrapper_.Uninitialize(), 21);
  EXPECT_TRUE(wrapper_.IsInitialized());
  EXPECT_EQ(WrapperState().module.get(), nullptr);
  const auto messages = sandbox_.log().Messages();
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), kUnloadedLine);
  EXPECT_THAT(sandbox_.sdk().Calls(true),
              ElementsAre("Attach", "Initialize\tQEL\t2026\tneutral\tnull\t0",
                          "ReleaseMemory\tstandin-session\thanded-out", "Uninitialize\tstandin-session\t21", "Detach"));
  // Still "initialised" but not loaded: Initialize answers 2, Lock finds no module.
  const auto before = sandbox_.log().Lines();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 2);
  EXPECT_EQ(sandbox_.log().Lines(), before);
  EXPECT_EQ(wrapper_.LockDirectory("C:\\Qel"), 4);
  EXPECT_EQ(sandbox_.log().Messages().back(),
            "[ERROR] HALDOAPIWrapperImpl::LockDirectory: Failed to obtain LockDirectoryFunc handle!");
  // And Uninitialize, with no module, finds no export.
  EXPECT_EQ(wrapper_.Uninitialize(), 4);
  EXPECT_EQ(sandbox_.log().Messages().back(),
            "[ERROR] HALDOAPIWrapperImpl::Uninitialize: Failed to obtain UninitializeFunc handle!");
}

TEST_F(WrapperUninitializeTest, MissingExportReturns4AndKeepsModuleAndSession) {
  SetSdkLocation(StandInKind::NoUninitialize);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_EQ(wrapper_.Uninitialize(), 4);
  EXPECT_NE(::GetModuleHandleW(StandInSdkPath(StandInKind::NoUninitialize).c_str()), nullptr);
  EXPECT_TRUE(wrapper_.IsInitialized());
  EXPECT_EQ(sandbox_.log().Messages().back(),
            "[ERROR] HALDOAPIWrapperImpl::Uninitialize: Failed to obtain UninitializeFunc handle!");
  EXPECT_THAT(sandbox_.sdk().Calls(true), ElementsAre("Attach", "Initialize\tQEL\t2026\tneutral\tnull\t0",
                                                      "ReleaseMemory\tstandin-session\thanded-out"));
}

// A loaded module never fails to unload, so the library's FreeLibrary is
// patched to one that frees the module and then reports failure.
ImportPatch* g_freeLibrary = nullptr;
BOOL WINAPI UnloadThenReportFailure(HMODULE module) {
  reinterpret_cast<decltype(&UnloadThenReportFailure)>(g_freeLibrary->original())(module);
  ::SetLastError(ERROR_INVALID_HANDLE);
  return FALSE;
}

TEST_F(WrapperUninitializeTest, UnloadFailureReturns1AndForgetsTheModule) {
  SetSdkLocation(StandInKind::Signed);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  int result = 0;
  {
    ImportPatch freeLibrary(ModuleOf(reinterpret_cast<const void*>(&LoadSdk)), "kernel32.dll", "FreeLibrary",
                            reinterpret_cast<void*>(&UnloadThenReportFailure));
    g_freeLibrary = &freeLibrary;
    result = wrapper_.Uninitialize();
  }
  EXPECT_EQ(result, 1);
  EXPECT_EQ(WrapperState().module.get(), nullptr);
  EXPECT_FALSE(wrapper_.IsInitialized());  // the SDK itself succeeded
  EXPECT_EQ(sandbox_.log().Messages().back(), "[ERROR] HALDOAPIWrapperImpl::Uninitialize: Unload failed!");
}

TEST_F(WrapperUninitializeTest, ReloadAfterUninitializeUsesTheKeptPathAndChecksTheSignatureAgain) {
  // A copy the test can swap: first the signed stand-in, then a tampered one.
  ScratchDir folder;
  const std::wstring dll = folder / L"StandInSdk.dll";
  ASSERT_TRUE(::CopyFileW(StandInSdkPath(StandInKind::Signed).c_str(), dll.c_str(), FALSE));
  SetSdkLocation(dll);
  ASSERT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  ASSERT_EQ(wrapper_.Uninitialize(), 0);

  // The registry is read once per process: pointing it elsewhere changes nothing.
  SetSdkLocation(L"C:\\nowhere\\StandInSdk.dll");
  ASSERT_TRUE(::CopyFileW(StandInSdkPath(StandInKind::Tampered).c_str(), dll.c_str(), FALSE));
  sandbox_.log().Clear();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 9);
  EXPECT_THAT(sandbox_.log().Messages(),
              ElementsAre(kLogSeparator, kArgsLine, "[INFO] Load: HALDO SDK path = " + Path(dll),
                          "[ERROR] WinVerifyTrust returned status: -2146869232", "[ERROR] VerifyCertificate failed!",
                          "[ERROR] IsSignatureValid: Signature invalid at path = " + Path(dll),
                          "[ERROR] HALDOAPIWrapperImpl::Initialize: Failed to load SDK! "));

  ASSERT_TRUE(::CopyFileW(StandInSdkPath(StandInKind::Signed).c_str(), dll.c_str(), FALSE));
  sandbox_.log().Clear();
  EXPECT_EQ(wrapper_.Initialize("QEL", "2026", "neutral"), 0);
  EXPECT_THAT(sandbox_.log().Messages(), ElementsAreArray(SuccessfulInitializeLines(Path(dll))));
  EXPECT_EQ(wrapper_.Uninitialize(), 0);
}

}  // namespace
}  // namespace ambrel::test
