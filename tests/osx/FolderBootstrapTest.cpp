// The folder utilities' entry onto the bootstrap, run end to end over the
// installed sandbox.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "Ambrel.h"
#include "qel_loader/InstallQueries.h"
#include "tests/qel_loader/FreshProcessTest.h"
#include "tests/support/SdkSandbox.h"

namespace ambrel {
namespace {

using test::Env;
using test::KalvexIniBesideTheProgram;
using test::kMarker;
using test::kOldPath;
using test::kWholeSession;

using FolderBootstrapTest = test::FreshProcessTest;

// The folder utilities' entry onto the bootstrap: with the edition honoured a
// KLXLITE installation is left alone; without, the bootstrap runs all the same,
// and the recorded folder is what OSxFolder hands out.
TEST_F(FolderBootstrapTest, FolderUtilityEntryHonoursTheEditionOnlyWhenAsked) {
  KalvexIniBesideTheProgram ini;
  ASSERT_TRUE(ini.WasAbsent()) << "a Kalvex.ini is already there";
  ASSERT_TRUE(ini.SetEdition(L"KLXLITE"));
  const wchar_t* before = OSxFolder::GetSharedDllPath();
  ASSERT_NE(before, nullptr);
  EXPECT_STREQ(before, L"");

  EXPECT_TRUE(OSxFolder::UpdateSharedDllPath(true));
  EXPECT_EQ(Env(L"PATH"), kOldPath);
  EXPECT_EQ(Env(kMarker), std::nullopt);
  EXPECT_STREQ(OSxFolder::GetSharedDllPath(), L"");
  EXPECT_TRUE(sandbox.SdkCalls(true).empty());

  EXPECT_TRUE(OSxFolder::UpdateSharedDllPath(false));
  EXPECT_EQ(std::wstring(OSxFolder::GetSharedDllPath()), sandbox.sharedDir());
  EXPECT_EQ(Env(L"PATH"), sandbox.sharedDir() + L";" + kOldPath);
  EXPECT_EQ(Env(kMarker), L"1");
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);

  // Done once: a later call returns at once, whatever it is asked.
  EXPECT_TRUE(OSxFolder::UpdateSharedDllPath(true));
  EXPECT_TRUE(OSxFolder::UpdateSharedDllPath(false));
  EXPECT_EQ(sandbox.SdkCalls(), kWholeSession);
}

}  // namespace
}  // namespace ambrel
