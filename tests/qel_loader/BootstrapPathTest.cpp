// InitializeQel with PATH empty and at its longest (PATH absent is in
// BootstrapTest.cpp).
#include <gtest/gtest.h>

#include <cwctype>

#include "Ambrel.h"
#include "qel_loader/Bootstrap.h"
#include "qel_loader/InstallQueries.h"
#include "tests/qel_loader/HostLayout.h"

namespace ambrel {
namespace {

using test::EnvGuard;
using test::kMarker;
using test::kWholeSession;

class BootstrapPathTest : public ::testing::Test {
 protected:
  void SetUp() override { SharedDllPath().clear(); }
  void TearDown() override { SharedDllPath().clear(); }
  test::SdkSandbox sandbox{test::SdkSandbox::Contents::Installed};
};

// The runtime cannot hold an empty value: setting PATH to "" removes it, so
// the run fails as for an absent PATH. The session is still ended.
TEST_F(BootstrapPathTest, EmptyPathIsNotSet) {
  sandbox.env().Set(L"PATH", L"");
  EXPECT_FALSE(InitializeQel());
  EXPECT_EQ(EnvGuard::Get(L"PATH"), std::nullopt);
  EXPECT_TRUE(SharedDllPath().empty());
  EXPECT_EQ(EnvGuard::Get(kMarker), std::nullopt);
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

// What an empty old value would become, were the runtime able to hold one.
TEST_F(BootstrapPathTest, EmptyOldValueGivesTheDirectoryAndALoneSemicolon) {
  EXPECT_EQ(PrependToPathList(L"C:\\Shared\\1.0", L""), L"C:\\Shared\\1.0;");
}

// The new value is past the limit: the result is what the runtime's write
// answers and PATH is what it keeps (Wine: success, the first 32,766
// characters, so PATH's last entries are lost); the folder is recorded.
TEST_F(BootstrapPathTest, FullestPathGetsTheDirectoryInFront) {
  const std::wstring full = test::PathListOfLength(test::kLongestEnvironmentValue);
  sandbox.env().Set(L"PATH", full);
  ASSERT_TRUE(EnvGuard::Get(L"PATH") == full);
  const std::optional<std::wstring> kept = EnvGuard::Kept(sandbox.sharedDir() + L";" + full);
  EXPECT_EQ(InitializeQel(), kept.has_value());
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == (kept ? *kept : full));
  EXPECT_EQ(SharedDllPath(), kept ? sandbox.sharedDir() : L"");
  EXPECT_EQ(EnvGuard::Get(kMarker), kept ? std::optional<std::wstring>(L"1") : std::nullopt);
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

TEST_F(BootstrapPathTest, DirectoryAtTheEndOfTheFullestPathIsFound) {
  const std::wstring tail = L";" + sandbox.sharedDir();
  std::wstring full = test::PathListOfLength(test::kLongestEnvironmentValue - tail.size()) + tail;
  for (auto& c : full) c = static_cast<wchar_t>(std::towlower(c));
  ASSERT_EQ(full.size(), test::kLongestEnvironmentValue);
  sandbox.env().Set(L"PATH", full);
  EXPECT_TRUE(InitializeQel());
  EXPECT_TRUE(EnvGuard::Get(L"PATH") == full);
  EXPECT_EQ(SharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(EnvGuard::Get(kMarker), L"1");
}

}  // namespace
}  // namespace ambrel
