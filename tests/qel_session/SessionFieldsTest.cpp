// The session's status codes, its fields and what construction and destruction do.
#include "qel_session/QelSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <type_traits>

#include "haldo_sdk/QelHaldoSdkWrapperImpl.h"
#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel::test {
namespace {

// ---- status codes ----

TEST(QelStatusCodes, FixedValuesOf32BitSignedType) {
  EXPECT_TRUE((std::is_same_v<std::underlying_type_t<QelStatus>, std::int32_t>));
  EXPECT_EQ(Success, 0);
  EXPECT_EQ(RegistryReadFailed, 6);
  EXPECT_EQ(NotInitialized, 8);
  EXPECT_EQ(PathNotFound, 12);
  EXPECT_EQ(VersionEmpty, 13);
  EXPECT_EQ(InitializeBypassed, 14);
  EXPECT_EQ(NoPathOverride, 100);
}

// ---- construction ----

TEST(SessionFields, InitialValuesOfTheDefaultConstructor) {
  QelSession session;
  EXPECT_TRUE(QelSessionInspector::CustomRegistryKey(session).empty());
  EXPECT_EQ(QelSessionInspector::RegistryRoot(session), HKEY_LOCAL_MACHINE);
  EXPECT_TRUE(QelSessionInspector::InstallLocation(session).empty());
  EXPECT_TRUE(QelSessionInspector::Release(session).empty());
  EXPECT_FALSE(QelSessionInspector::PathOverridden(session));
  EXPECT_TRUE(QelSessionInspector::ProductLineCode(session).empty());
  EXPECT_NE(dynamic_cast<QelHaldoSdkWrapperImpl*>(QelSessionInspector::Wrapper(session)), nullptr);
  EXPECT_EQ(QelSessionInspector::SdkStatus(session), 7);
}

TEST(SessionFields, AreLaidOutInDeclarationOrder) {
  QelSession session;
  const std::vector<const void*> addresses = QelSessionInspector::FieldAddresses(session);
  for (size_t i = 1; i < addresses.size(); ++i)
    EXPECT_TRUE(std::less<const void*>()(addresses[i - 1], addresses[i])) << "field " << i;
}

TEST(SessionFields, NotCopyableAndNoVirtualOperations) {
  EXPECT_FALSE(std::is_copy_constructible_v<QelSession>);
  EXPECT_FALSE(std::is_copy_assignable_v<QelSession>);
  EXPECT_FALSE(std::is_polymorphic_v<QelSession>);
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
