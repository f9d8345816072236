// The session's status codes, its type's properties and what construction and
// destruction do.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

// ---- status codes ----

// Facts about the types, checked where they are compiled.
static_assert(std::is_same_v<std::underlying_type_t<QelStatus>, std::int32_t>, "status codes are 32-bit signed");
static_assert(!std::is_copy_constructible_v<QelSession> && !std::is_copy_assignable_v<QelSession>,
              "a session is not copyable");
static_assert(!std::is_polymorphic_v<QelSession>, "a session has no virtual operations");

TEST(QelStatusCodes, FixedValues) {
  EXPECT_EQ(Success, 0);
  EXPECT_EQ(RegistryReadFailed, 6);
  EXPECT_EQ(NotInitialized, 8);
  EXPECT_EQ(PathNotFound, 12);
  EXPECT_EQ(VersionEmpty, 13);
  EXPECT_EQ(InitializeBypassed, 14);
  EXPECT_EQ(NoPathOverride, 100);
}

// ---- construction ----

// What the default constructor sets up shows in what a session then does:
// the real wrapper over the SDK the registry names, and the key of HKLM.
TEST_F(SessionWithStandInSdk, DefaultConstructorDrivesTheRealWrapperUnderHklm) {
  const std::wstring expected = WriteCompleteInstall(sandbox_.scratch(), L"Shared", L"1.0");
  SetSdkLocation(StandInKind::Signed);
  QelSession session;
  std::wstring location = L"untouched";
  EXPECT_EQ(session.LockInstallLocation(location), NotInitialized);
  EXPECT_EQ(location, L"untouched");
  ASSERT_EQ(session.Initialize(L"2026"), Success);
  EXPECT_EQ(session.LockInstallLocation(location), Success);
  EXPECT_EQ(location, expected);
  EXPECT_EQ(session.Uninitialize(), Success);
  EXPECT_EQ(sandbox_.SdkCalls(), kWholeSession);
}

TEST_F(SessionTest, DestructorDeletesTheWrapperAndCallsNoSdkOperation) {
  // The strict double fails the test on any call.
  session_.reset();
  EXPECT_TRUE(wrapperDestroyed_);
  EXPECT_TRUE(messages().empty());
}

TEST_F(SessionTest, FreshSessionAnswersNotInitialized) {
  std::wstring location = L"untouched";
  EXPECT_EQ(session().LockInstallLocation(location), NotInitialized);
  EXPECT_EQ(location, L"untouched");
  EXPECT_EQ(session().Uninitialize(), NotInitialized);
  EXPECT_TRUE(messages().empty());
}

}  // namespace
}  // namespace ambrel::test
