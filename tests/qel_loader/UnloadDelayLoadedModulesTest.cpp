#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "Ambrel.h"

namespace {

std::vector<std::string> g_calls;

BOOL WINAPI RecordUnload(LPCSTR name) {
  g_calls.emplace_back(name);
  return FALSE;  // a failed unload must not stop the walk
}

std::vector<std::string> Unload(std::string_view list) {
  g_calls.clear();
  QelLoadHelper::UnloadDelayLoadedModules(list, &RecordUnload);
  return g_calls;
}

using Calls = std::vector<std::string>;

TEST(UnloadDelayLoadedModules, TwoNamesGiveTwoCallsInListOrder) {
  EXPECT_EQ(Unload("mapi32.dll;dbghelp.dll"), (Calls{"mapi32.dll", "dbghelp.dll"}));
}

TEST(UnloadDelayLoadedModules, TrailingSemicolonGivesAThirdCallWithTheEmptyName) {
  EXPECT_EQ(Unload("mapi32.dll;dbghelp.dll;"), (Calls{"mapi32.dll", "dbghelp.dll", ""}));
}

TEST(UnloadDelayLoadedModules, EmptyListOrNullCallbackGivesNoCall) {
  EXPECT_TRUE(Unload("").empty());
  EXPECT_TRUE(Unload(std::string_view()).empty());
  g_calls.clear();
  QelLoadHelper::UnloadDelayLoadedModules("mapi32.dll", nullptr);
  EXPECT_TRUE(g_calls.empty());
}

TEST(UnloadDelayLoadedModules, LeadingAndDoubledSemicolonsGiveEmptyNamesAndNothingIsTrimmed) {
  EXPECT_EQ(Unload(";a.dll;; b.dll "), (Calls{"", "a.dll", "", " b.dll "}));
  EXPECT_EQ(Unload(";"), (Calls{"", ""}));
  EXPECT_EQ(Unload("one.dll"), (Calls{"one.dll"}));
}

TEST(UnloadDelayLoadedModules, EachNameIsTerminatedAtItsOwnEnd) {
  // The view is not NUL-terminated after "b.dll": the callback must still get
  // exactly that name.
  const std::string text = "a.dll;b.dllXYZ";
  EXPECT_EQ(Unload(std::string_view(text).substr(0, 11)), (Calls{"a.dll", "b.dll"}));
}

}  // namespace
