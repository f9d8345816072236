// QelSession::Initialize: the bypass marker and the start of the SDK session.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

using ::testing::Return;

// ---- Initialize ----

class BypassTest : public SessionTest, public ::testing::WithParamInterface<const wchar_t*> {};

TEST_P(BypassTest, AnyValueBypassesWithoutTouchingTheWrapper) {
  WriteCompleteInstall();
  env_.Set(L"QEL_INITIALIZE_BYPASSED", GetParam());
  EXPECT_EQ(session().Initialize(L"2026"), InitializeBypassed);
  EXPECT_EQ(messages(), (Messages{{L"INFO", L"Intialize is bypassed"}}));
  // Nothing was taken over: the later operations find no release, and the
  // strict mock shows the wrapper was never called.
  std::wstring location = L"untouched";
  EXPECT_EQ(session().LockInstallLocation(location), NotInitialized);
  EXPECT_EQ(location, L"untouched");
  EXPECT_EQ(session().Uninitialize(), NotInitialized);
  EXPECT_EQ(messages().size(), 1u);
}

INSTANTIATE_TEST_SUITE_P(Values, BypassTest, ::testing::Values(L"1", L"0", L"no", L" "));

TEST_F(SessionTest, InitializeStartsTheSdkForQelNeutralAndTheRelease) {
  EXPECT_CALL(*wrapper_, Initialize("QEL", "2026", "neutral")).WillOnce(Return(0));
  EXPECT_EQ(session().Initialize(L"2026"), Success);
  EXPECT_TRUE(messages().empty());
  // The release is kept: the lock step reads its key and, the SDK session
  // being usable, asks for the lock.
  const std::wstring expected = WriteCompleteInstall();
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(expected) + "\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
}

TEST_F(SessionTest, InitializeHandsTheReleaseOverAsUtf8) {
  EXPECT_CALL(*wrapper_, Initialize("QEL", "2026-\xC3\xA9\xE8\xB7\xAF", "neutral")).WillOnce(Return(0));
  EXPECT_EQ(session().Initialize(L"2026-\u00E9\u8DEF"), Success);
}

TEST_F(SessionTest, SessionAlreadyHeldCountsAsStarted) {
  Initialized(2);
  EXPECT_TRUE(messages().empty());
  const std::wstring expected = WriteCompleteInstall();
  EXPECT_CALL(*wrapper_, LockDirectory(Narrow(expected) + "\\")).WillOnce(Return(0));
  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);
}

TEST_F(SessionTest, FailedSdkStartStillSucceedsWithMessage2) {
  Initialized(3);
  // The rendering for code 3: the colon directly followed by the digit.
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"Failed to intialize HALDO SDK wrapper status code:3"}}));
}

TEST_F(SessionTest, NegativeSdkStartCodeIsPrintedWithItsSign) {
  Initialized(-2147483647 - 1);
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"-2147483648"}}));
}

// ---- edge case: the SDK start fails while the registry is complete ----

TEST_F(SessionTest, SdkStartFailsRegistryComplete) {
  const std::wstring expected = WriteCompleteInstall();
  Initialized(3);
  sink_.clear();

  std::wstring location;
  EXPECT_EQ(session().LockInstallLocation(location), Success);  // no LockDirectory: the strict double would fail
  EXPECT_EQ(location, expected);
  // Message 3 with a usable location: the SDK session is what is missing.
  EXPECT_EQ(messages(), (Messages{{L"WARN", kSdkInitFailed + L"3"}}));

  sink_.clear();
  EXPECT_CALL(*wrapper_, IsInitialized()).WillOnce(Return(false));
  EXPECT_EQ(session().Uninitialize(), Success);
  EXPECT_EQ(messages(), (Messages{{L"WARN", L"HALDO SDK wrapper is not initialized"}}));
}

}  // namespace
}  // namespace ambrel::test
