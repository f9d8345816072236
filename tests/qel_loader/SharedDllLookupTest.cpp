#include "qel_loader/SharedDllLookup.h"

#include <gtest/gtest.h>

#include <filesystem>

#include "Ambrel.h"
#include "qel_loader/InstallQueries.h"
#include "tests/qel_loader/FreshProcessTest.h"
#include "tests/qel_loader/HostLayout.h"
#include "tests/qel_session/SessionTestSupport.h"

namespace ambrel {
namespace {

using test::Env;
using test::kMarker;
using test::kOldPath;
using test::LibraryCopy;

using Calls = std::vector<std::string>;
using test::kWholeSession;

// A lookup prepares nothing: the process is left as it was.
using SharedDllLookupTest = test::FreshProcessTest;

// ---- FindSharedDllPath (this program's own objects) ----

TEST_F(SharedDllLookupTest, FindRunsAWholeSessionAndDropsTheLockAtOnce) {
  EXPECT_EQ(FindSharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
  ExpectProcessUntouched();
  // Each call runs its own session: nothing is kept.
  sandbox.sdk().ClearCalls();
  EXPECT_EQ(FindSharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

TEST_F(SharedDllLookupTest, FindReturnsTheDirectoryExactlyAsTheSessionReturnedIt) {
  const std::wstring location = sandbox.sharedDir() + L"\\";
  sandbox.OverrideLocation(location);
  EXPECT_EQ(FindSharedDllPath(), location);
}

TEST_F(SharedDllLookupTest, FindInABypassedProcessGivesNothingAndNoSdkCall) {
  sandbox.env().Set(kMarker, L"1");
  EXPECT_EQ(FindSharedDllPath(), L"");
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());
}

TEST_F(SharedDllLookupTest, FindWithAFailedLockStillGivesTheDirectory) {
  sandbox.sdk().SetResult("LockDirectory", 5);
  EXPECT_EQ(FindSharedDllPath(), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

TEST_F(SharedDllLookupTest, FindEndsTheSessionWhenAnExceptionLeavesTheLock) {
  ExpectASinkExceptionAtTheLockToEndTheSession([] { return FindSharedDllPath(); });
}

TEST_F(SharedDllLookupTest, FindWithALocationThatIsNotAnExistingDirectoryGivesNothing) {
  sandbox.OverrideLocation(sandbox.scratch() / L"not-there");
  EXPECT_EQ(FindSharedDllPath(), L"");
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession) << "the session is ended before the folder test";
  sandbox.OverrideLocation(sandbox.scratch().WriteFile(L"file.txt", "x"));
  EXPECT_EQ(FindSharedDllPath(), L"");
}

TEST_F(SharedDllLookupTest, FindWithoutAUsableLocationGivesNothing) {
  ASSERT_TRUE(::RemoveDirectoryW(sandbox.sharedDir().c_str()));
  EXPECT_EQ(FindSharedDllPath(), L"");
  EXPECT_EQ(sandbox.SdkCalls(), (Calls{"Initialize", "UnLockDirectory", "Uninitialize"}));
}

TEST_F(SharedDllLookupTest, FindPropagatesAnUnexpectedFileSystemErrorAfterEndingTheSession) {
  sandbox.OverrideLocation(L"\\\\.\\PhysicalDrive0");  // Wine: ERROR_BAD_DEV_TYPE; Windows: access denied
  try {
    (void)FindSharedDllPath();
    ADD_FAILURE() << "no exception";
  } catch (const std::filesystem::filesystem_error& error) {
    EXPECT_NE(std::string(error.what()).find("status"), std::string::npos) << error.what();
  }
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
  ExpectProcessUntouched();
}

// ---- GetSharedDllPath: a fresh library copy per case, each with its own once-computed string ----

using GetSharedDllPathFn = const wchar_t* (*)();

TEST_F(SharedDllLookupTest, GetOnADevelopmentBuildIsEmptyValidAndCreatesNoSession) {
  LibraryCopy development(L"R:\\");
  auto get = development.As<GetSharedDllPathFn>("GetSharedDllPath");
  ASSERT_NE(get, nullptr);
  const wchar_t* result = get();
  ASSERT_NE(result, nullptr);
  EXPECT_STREQ(result, L"");
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());
  EXPECT_TRUE(sandbox.log().Lines().empty());
  ExpectProcessUntouched();
}

TEST_F(SharedDllLookupTest, GetTwiceGivesTheSamePointerAndRunsOneSession) {
  LibraryCopy copy;
  auto get = copy.As<GetSharedDllPathFn>("GetSharedDllPath");
  ASSERT_NE(get, nullptr);
  const wchar_t* first = get();
  EXPECT_EQ(std::wstring(first), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
  sandbox.sdk().ClearCalls();
  EXPECT_EQ(get(), first);
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());
  ExpectProcessUntouched();
}

TEST_F(SharedDllLookupTest, GetAfterASuccessfulBootstrapInTheSameLibraryStaysEmpty) {
  LibraryCopy copy;
  auto initialize = copy.As<bool (*)()>("InitializeQel");
  auto get = copy.As<GetSharedDllPathFn>("GetSharedDllPath");
  ASSERT_TRUE(initialize && get);
  ASSERT_TRUE(initialize());
  ASSERT_EQ(Env(kMarker), L"1");
  sandbox.sdk().ClearCalls();

  const wchar_t* first = get();
  EXPECT_STREQ(first, L"") << "the lookup's session reports Bypassed";
  // Fixed for the life of the library, even once the marker is gone.
  sandbox.env().Unset(kMarker);
  EXPECT_EQ(get(), first);
  EXPECT_STREQ(get(), L"");
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());
}

TEST_F(SharedDllLookupTest, GetWithAFailedLockStillGivesTheDirectory) {
  sandbox.sdk().SetResult("LockDirectory", 5);
  LibraryCopy copy;
  EXPECT_EQ(std::wstring(copy.As<GetSharedDllPathFn>("GetSharedDllPath")()), sandbox.sharedDir());
}

TEST_F(SharedDllLookupTest, GetWithALocationThatIsNotAnExistingDirectoryIsEmpty) {
  sandbox.OverrideLocation(sandbox.scratch() / L"not-there");
  LibraryCopy copy;
  EXPECT_STREQ(copy.As<GetSharedDllPathFn>("GetSharedDllPath")(), L"");
}

TEST_F(SharedDllLookupTest, GetIsRetriedAfterAnException) {
  sandbox.OverrideLocation(L"\\\\.\\PhysicalDrive0");
  LibraryCopy copy;
  auto get = copy.As<GetSharedDllPathFn>("GetSharedDllPath");
  EXPECT_THROW(get(), std::filesystem::filesystem_error);
  sandbox.OverrideLocation(sandbox.sharedDir());
  sandbox.sdk().ClearCalls();
  const wchar_t* result = get();
  EXPECT_EQ(std::wstring(result), sandbox.sharedDir());
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
  EXPECT_EQ(get(), result);
}

}  // namespace
}  // namespace ambrel
