// The import patcher the fault tests stand on: a patch redirects the module's
// own calls through its import table and restores them in its destructor,
// patches of one slot nest and unwind in reverse order, a missing import is a
// std::runtime_error, and RebindImports points a module's imports of one DLL
// at another copy of it. The module patched is this program, which calls
// kernel32 and (through its import library) Ambrel.dll.
#include <windows.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <string>
#include <vector>

#include "Ambrel.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/TestSupport.h"

namespace ambrel::test {
namespace {

HMODULE ThisProgram() { return ::GetModuleHandleW(nullptr); }

DWORD WINAPI FirstStandIn() { return 4001; }
DWORD WINAPI SecondStandIn() { return 4002; }

// Called through this program's import table, as the library calls the system.
DWORD ProcessId() { return ::GetCurrentProcessId(); }

TEST(ImportPatch, RedirectsTheModulesCallAndRestoresItInItsDestructor) {
  const DWORD real = ProcessId();
  ASSERT_NE(real, 4001u);
  {
    ImportPatch patch(ThisProgram(), "kernel32.dll", "GetCurrentProcessId", reinterpret_cast<void*>(&FirstStandIn));
    EXPECT_EQ(ProcessId(), 4001u);
    // The original passes the call on.
    EXPECT_EQ(reinterpret_cast<DWORD(WINAPI*)()>(patch.original())(), real);
  }
  EXPECT_EQ(ProcessId(), real);
}

TEST(ImportPatch, NestedPatchesUnwindInReverseOrder) {
  const DWORD real = ProcessId();
  {
    ImportPatch outer(ThisProgram(), "KERNEL32.DLL", "GetCurrentProcessId", reinterpret_cast<void*>(&FirstStandIn));
    {
      ImportPatch inner(ThisProgram(), "kernel32.dll", "GetCurrentProcessId", reinterpret_cast<void*>(&SecondStandIn));
      EXPECT_EQ(ProcessId(), 4002u);
      EXPECT_EQ(inner.original(), reinterpret_cast<void*>(&FirstStandIn));
    }
    EXPECT_EQ(ProcessId(), 4001u);
  }
  EXPECT_EQ(ProcessId(), real);
}

TEST(ImportPatch, AnAbsentImportThrowsAndChangesNothing) {
  const DWORD real = ProcessId();
  EXPECT_THROW(
      ImportPatch(ThisProgram(), "kernel32.dll", "NoSuchFunctionAnywhere", reinterpret_cast<void*>(&FirstStandIn)),
      std::runtime_error);
  EXPECT_THROW(
      ImportPatch(ThisProgram(), "no_such_library.dll", "GetCurrentProcessId", reinterpret_cast<void*>(&FirstStandIn)),
      std::runtime_error);
  EXPECT_FALSE(ImportPatch::Imports(ThisProgram(), "kernel32.dll", "NoSuchFunctionAnywhere"));
  EXPECT_TRUE(ImportPatch::Imports(ThisProgram(), "kernel32.dll", "GetCurrentProcessId"));
  EXPECT_EQ(ProcessId(), real);
}

TEST(ImportPatch, NamedImportsListsWhatTheModuleImportsFromOneDll) {
  const std::vector<std::string> kernel = ImportPatch::NamedImports(ThisProgram(), "kernel32.dll");
  EXPECT_NE(std::find(kernel.begin(), kernel.end(), "GetCurrentProcessId"), kernel.end());
  EXPECT_EQ(std::find(kernel.begin(), kernel.end(), "NoSuchFunctionAnywhere"), kernel.end());
  EXPECT_TRUE(ImportPatch::NamedImports(ThisProgram(), "no_such_library.dll").empty());
  // Every name listed can be patched.
  for (const std::string& name : ImportPatch::NamedImports(ThisProgram(), "Ambrel.dll"))
    EXPECT_TRUE(ImportPatch::Imports(ThisProgram(), "Ambrel.dll", name.c_str())) << name;
}

// The recorded folder lives in the library's statics, so the pointer it hands
// out shows which copy of the library answered.
HMODULE LibraryThatAnswers() { return ModuleOf(OSxFolder::GetSharedDllPath()); }

TEST(RebindImports, PointsTheModulesImportsAtAnotherCopyAndBack) {
  const HMODULE linked = ::GetModuleHandleW(L"Ambrel.dll");
  ASSERT_EQ(LibraryThatAnswers(), linked);
  LibraryCopy copy;
  ASSERT_NE(copy.module(), linked);
  {
    RebindImports rebind(ThisProgram(), "Ambrel.dll", copy.module());
    EXPECT_EQ(rebind.count(), ImportPatch::NamedImports(ThisProgram(), "Ambrel.dll").size());
    EXPECT_EQ(LibraryThatAnswers(), copy.module());
    EXPECT_FALSE(QelLoadHelper::IsDevelopment());  // any other export reaches the copy too
  }
  EXPECT_EQ(LibraryThatAnswers(), linked);
}

TEST(RebindImports, ATargetWithoutOneOfTheNamesThrowsAndChangesNothing) {
  const HMODULE linked = ::GetModuleHandleW(L"Ambrel.dll");
  EXPECT_THROW(RebindImports(ThisProgram(), "Ambrel.dll", ::GetModuleHandleW(L"kernel32.dll")), std::runtime_error);
  EXPECT_EQ(LibraryThatAnswers(), linked);
  EXPECT_THROW(RebindImports(ThisProgram(), "no_such_library.dll", linked), std::runtime_error);
}

}  // namespace
}  // namespace ambrel::test
