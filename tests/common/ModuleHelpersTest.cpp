#include "common/ModuleHelpers.h"

#include <gtest/gtest.h>

#include "tests/support/TestSupport.h"

namespace ambrel {
namespace {

TEST(ModuleHelpers, ThisModuleIsTheProgramThatHoldsTheCode) {
  // The test program links the library's objects, so "this module" is the program.
  EXPECT_EQ(GetThisModuleHandle(), ::GetModuleHandleW(nullptr));
  EXPECT_EQ(GetThisModuleDirectory(), test::TestBinDirectory());
}

TEST(ModuleHelpers, NullModuleGivesTheHostExecutable) {
  wchar_t buffer[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  EXPECT_EQ(GetModuleFilePath(nullptr), buffer);
}

TEST(ModuleHelpers, ParentPathKeepsTheRootAndDropsSeparators) {
  EXPECT_EQ(ParentPathOf(L"C:\\Apps\\Kalvex\\Bin\\Kalvex.exe"), L"C:\\Apps\\Kalvex\\Bin");
  EXPECT_EQ(ParentPathOf(L"C:\\Kalvex.exe"), L"C:\\");
  EXPECT_EQ(ParentPathOf(L"C:/Apps/Ambrel.dll"), L"C:/Apps");
  EXPECT_EQ(ParentPathOf(L"C:\\Apps\\\\Ambrel.dll"), L"C:\\Apps");
}

}  // namespace
}  // namespace ambrel
