// The registry sandbox keeps the machine's hives safe even when it cannot be
// set up: each registry call its constructor makes fails in turn (the calls
// are patched in this program's own imports), and after every failure no
// hive is left redirected, no scratch key is left under the real HKCU and no
// handle is left open. Only reads reach the real hives here.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "tests/sandbox/Sandbox.h"
#include "tests/support/HandleCount.h"
#include "tests/support/ImportPatch.h"

namespace ambrel::test {
namespace {

constexpr wchar_t kScratchRoot[] = L"Software\\AmbrelTestSandbox";

// The registry calls of the constructor, counted together; the N-th fails.
struct Calls {
  long count = 0;
  long failAt = 0;
  std::string failed;  // the function that was made to fail
};
Calls g_calls;

bool FailThisOne(const char* function) {
  if (++g_calls.count != g_calls.failAt) return false;
  g_calls.failed = function;
  return true;
}

using CreateKeyFunction = LSTATUS(WINAPI*)(HKEY, LPCWSTR, DWORD, LPWSTR, DWORD, REGSAM, LPSECURITY_ATTRIBUTES, PHKEY,
                                           LPDWORD);
using SetValueFunction = LSTATUS(WINAPI*)(HKEY, LPCWSTR, DWORD, DWORD, const BYTE*, DWORD);
using OverrideFunction = LSTATUS(WINAPI*)(HKEY, HKEY);
CreateKeyFunction g_createKey = nullptr;
SetValueFunction g_setValue = nullptr;
OverrideFunction g_override = nullptr;

LSTATUS WINAPI FailingCreateKey(HKEY key, LPCWSTR subkey, DWORD reserved, LPWSTR className, DWORD options,
                                REGSAM access, LPSECURITY_ATTRIBUTES security, PHKEY result, LPDWORD disposition) {
  if (FailThisOne("RegCreateKeyExW")) return ERROR_ACCESS_DENIED;
  return g_createKey(key, subkey, reserved, className, options, access, security, result, disposition);
}
LSTATUS WINAPI FailingSetValue(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD size) {
  if (FailThisOne("RegSetValueExW")) return ERROR_ACCESS_DENIED;
  return g_setValue(key, name, reserved, type, data, size);
}
LSTATUS WINAPI FailingOverride(HKEY hive, HKEY replacement) {
  if (FailThisOne("RegOverridePredefKey")) return ERROR_ACCESS_DENIED;
  return g_override(hive, replacement);
}

// This program's import of `function`, from whichever DLL the import library
// named for it.
std::unique_ptr<ImportPatch> PatchRegistryCall(const char* function, void* replacement, void** original) {
  const HMODULE self = ::GetModuleHandleW(nullptr);
  for (const char* dll : {"advapi32.dll", "api-ms-win-core-registry-l1-1-0.dll", "kernelbase.dll"}) {
    if (!ImportPatch::Imports(self, dll, function)) continue;
    auto patch = std::make_unique<ImportPatch>(self, dll, function, replacement);
    *original = patch->original();
    return patch;
  }
  throw std::runtime_error(std::string("this program does not import ") + function);
}

// The scratch keys under the real HKCU, by name.
std::set<std::wstring> ScratchKeys() {
  std::set<std::wstring> names;
  HKEY root = nullptr;
  if (::RegOpenKeyExW(HKEY_CURRENT_USER, kScratchRoot, 0, KEY_READ, &root) != ERROR_SUCCESS) return names;
  wchar_t name[256];
  for (DWORD i = 0;; ++i) {
    DWORD length = 256;
    if (::RegEnumKeyExW(root, i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
    names.insert(name);
  }
  ::RegCloseKey(root);
  return names;
}

// True when `subkey` of `hive` can be opened for reading.
bool CanOpen(HKEY hive, const wchar_t* subkey) {
  HKEY key = nullptr;
  if (::RegOpenKeyExW(hive, subkey, 0, KEY_READ, &key) != ERROR_SUCCESS) return false;
  ::RegCloseKey(key);
  return true;
}

// What shows that the hives are the machine's own: a key only the real HKLM
// has, and the sandboxes' root, which only the real HKCU has.
constexpr wchar_t kRealHklmKey[] = L"System\\CurrentControlSet\\Control";

// One set-up with the N-th registry call failing.
struct Attempt {
  bool constructed = false;
  bool redirectedWhileStanding = false;
  std::string failedCall;
  std::string message;
};
Attempt SetUpWithCallFailing(long n) {
  Attempt attempt;
  g_calls = Calls{0, n, {}};
  try {
    RegistrySandbox sandbox;
    attempt.constructed = true;
    g_calls.failAt = 0;  // the destructor's calls are not on trial here
    attempt.redirectedWhileStanding =
        !CanOpen(HKEY_LOCAL_MACHINE, kRealHklmKey) && !CanOpen(HKEY_CURRENT_USER, kScratchRoot);
  } catch (const std::runtime_error& error) {
    attempt.message = error.what();
  }
  g_calls.failAt = 0;
  attempt.failedCall = g_calls.failed;
  return attempt;
}

TEST(RegistrySandboxTest, EveryFailedSetUpStepLeavesTheHivesAsTheyWere) {
  const auto createKey = PatchRegistryCall("RegCreateKeyExW", reinterpret_cast<void*>(&FailingCreateKey),
                                           reinterpret_cast<void**>(&g_createKey));
  const auto setValue = PatchRegistryCall("RegSetValueExW", reinterpret_cast<void*>(&FailingSetValue),
                                          reinterpret_cast<void**>(&g_setValue));
  const auto override = PatchRegistryCall("RegOverridePredefKey", reinterpret_cast<void*>(&FailingOverride),
                                          reinterpret_cast<void**>(&g_override));
  // Once over the whole road first: what the first calls of a process keep
  // for good (the system's cached handles, the scratch keys' root, which only
  // the real HKCU has) is then in place before anything is counted.
  for (long n = 1; n < 100 && !SetUpWithCallFailing(n).constructed; ++n) {
  }
  { SCOPED_TRACE("GoogleTest's first trace makes a lock of its own"); }
  ASSERT_TRUE(CanOpen(HKEY_LOCAL_MACHINE, kRealHklmKey));
  ASSERT_TRUE(CanOpen(HKEY_CURRENT_USER, kScratchRoot));
  const std::set<std::wstring> keysBefore = ScratchKeys();
  const size_t handlesBefore = CountProcessHandles();

  std::set<std::string> failedCalls;
  long failures = 0;
  for (long n = 1;; ++n) {
    ASSERT_LT(n, 100) << "the constructor never got through";
    const Attempt attempt = SetUpWithCallFailing(n);
    // Read before anything is asserted, and the handles last: the hives'
    // reads reopen the handles the system caches for the real roots.
    const bool hklmReal = CanOpen(HKEY_LOCAL_MACHINE, kRealHklmKey);
    const bool hkcuReal = CanOpen(HKEY_CURRENT_USER, kScratchRoot);
    const std::set<std::wstring> keys = ScratchKeys();
    const size_t handles = CountProcessHandles();
    SCOPED_TRACE("call " + std::to_string(n) +
                 (attempt.constructed ? " (none failed)" : ", " + attempt.failedCall + ", failed: " + attempt.message));
    EXPECT_EQ(attempt.constructed, attempt.failedCall.empty());
    EXPECT_TRUE(hklmReal) << "HKLM left redirected";
    EXPECT_TRUE(hkcuReal) << "HKCU left redirected";
    EXPECT_EQ(keys, keysBefore) << "a scratch key left under the real HKCU";
    EXPECT_EQ(handles, handlesBefore) << "a handle left open";
    if (attempt.constructed) {
      EXPECT_TRUE(attempt.redirectedWhileStanding) << "the sandbox stood without both hives redirected";
      break;
    }
    ++failures;
    failedCalls.insert(attempt.failedCall);
  }
  std::printf("[sandbox] set-up failed at each of %ld registry calls in turn\n", failures);
  // The road passes every kind of call: the keys, the link's value, both overrides.
  EXPECT_EQ(failedCalls, (std::set<std::string>{"RegCreateKeyExW", "RegSetValueExW", "RegOverridePredefKey"}));
  EXPECT_GE(failures, 5);
}

}  // namespace
}  // namespace ambrel::test
