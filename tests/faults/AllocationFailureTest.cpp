// Every allocation on an export's road fails in turn: the library's heap
// imports (and, in the GCC build, those of the shared C++ runtime, through
// which its operator new allocates) are patched from this program to fail the
// N-th allocation of one call, for N = 1, 2, ... until the call gets through
// without a failure. After each failed call std::bad_alloc must have reached
// the caller, and nothing the process shows may have changed half-way: PATH
// and the rest of the environment, the recorded shared-components folder, the
// process's DLL directories and its handle count are as before the call, and
// the wrapper log holds only whole lines. The table of (export, N) pairs is
// printed at the end.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <cstring>
#include <cwchar>
#include <functional>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "Ambrel.h"
#include "qel_loader/DelayLoadHook.h"
#include "qel_loader/InstallQueries.h"
#include "tests/support/HandleCount.h"
#include "tests/support/ImportPatch.h"
#include "tests/support/SdkSandbox.h"
#include "tests/support/TestStep.h"

namespace ambrel::test {
namespace {

using MallocFunction = void*(__cdecl*)(size_t);
using ReallocFunction = void*(__cdecl*)(void*, size_t);
using CallocFunction = void*(__cdecl*)(size_t, size_t);

// The allocation budget of the call under test; counted only while armed.
struct Budget {
  bool armed = false;
  long count = 0;
  long failAt = 0;
  bool failed = false;
};
Budget g_budget;
MallocFunction g_malloc = nullptr;
ReallocFunction g_realloc = nullptr;
CallocFunction g_calloc = nullptr;

// Where the failed allocation was asked for: return addresses, innermost first.
void* g_failedAt[24] = {};
USHORT g_failedAtFrames = 0;

bool FailThisOne() {
  if (!g_budget.armed) return false;
  if (++g_budget.count != g_budget.failAt) return false;
  g_budget.failed = true;
  // Looked up, since not every SDK's headers declare it.
  using CaptureFunction = USHORT(WINAPI*)(ULONG, ULONG, PVOID*, PULONG);
  static const auto capture = reinterpret_cast<CaptureFunction>(
      reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "RtlCaptureStackBackTrace")));
  g_failedAtFrames = capture ? capture(1, 24, g_failedAt, nullptr) : 0;
  return true;
}

// The failed allocation's callers as module+offset, for a report.
std::string FailedAt() {
  std::string text;
  for (USHORT i = 0; i < g_failedAtFrames; ++i) {
    HMODULE module = nullptr;
    char name[MAX_PATH] = "?";
    if (::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                             static_cast<const char*>(g_failedAt[i]), &module))
      ::GetModuleFileNameA(module, name, MAX_PATH);
    const char* base = std::strrchr(name, '\\');
    char frame[400];
    std::snprintf(frame, sizeof frame, " %s+0x%llx", base ? base + 1 : name,
                  static_cast<unsigned long long>(static_cast<const char*>(g_failedAt[i]) -
                                                  reinterpret_cast<const char*>(module)));
    text += frame;
  }
  return text;
}

void* __cdecl FailingMalloc(size_t size) { return FailThisOne() ? nullptr : g_malloc(size); }
void* __cdecl FailingRealloc(void* block, size_t size) { return FailThisOne() ? nullptr : g_realloc(block, size); }
void* __cdecl FailingCalloc(size_t count, size_t size) { return FailThisOne() ? nullptr : g_calloc(count, size); }

// The modules whose heap imports the library's allocations go through, and
// the DLL they import them from.
struct HeapImporter {
  HMODULE module;
  const char* dll;
};
std::vector<HeapImporter> HeapImporters() {
#if defined(_MSC_VER)
  // The library's objects are in this program; operator new is linked in and
  // calls the universal runtime's malloc.
  return {{::GetModuleHandleW(nullptr), "api-ms-win-crt-heap-l1-1-0.dll"},
          {::GetModuleHandleW(nullptr), "ucrtbase.dll"}};
#else
  // This program's own malloc calls (the library's objects are linked in) and
  // libstdc++'s, where operator new and the out-of-line string code allocate.
  return {{::GetModuleHandleW(nullptr), "msvcrt.dll"}, {::GetModuleHandleW(L"libstdc++-6.dll"), "msvcrt.dll"}};
#endif
}

class AllocationPatches {
 public:
  AllocationPatches() {
    patches_.reserve(16);
    for (const HeapImporter& importer : HeapImporters()) {
      Add(importer, "malloc", reinterpret_cast<void*>(&FailingMalloc), reinterpret_cast<void**>(&g_malloc));
      Add(importer, "realloc", reinterpret_cast<void*>(&FailingRealloc), reinterpret_cast<void**>(&g_realloc));
      Add(importer, "calloc", reinterpret_cast<void*>(&FailingCalloc), reinterpret_cast<void**>(&g_calloc));
    }
  }
  size_t count() const { return patches_.size(); }

 private:
  void Add(const HeapImporter& importer, const char* function, void* replacement, void** original) {
    try {
      // The original is kept before anything allocates again: this very
      // program's allocations may already go through the patched slot.
      auto patch = std::make_unique<ImportPatch>(importer.module, importer.dll, function, replacement);
      if (*original == nullptr) *original = patch->original();
      patches_.push_back(std::move(patch));  // room reserved: no allocation here
    } catch (const std::runtime_error&) {
      // A module that does not import this one allocates through the others.
    }
  }
  std::vector<std::unique_ptr<ImportPatch>> patches_;
};

// What a host can see of the process.
struct Snapshot {
  std::wstring environment;  // the whole block, PATH included
  std::wstring sharedDllPath;
  bool userDirectoryRegistered = false;
  size_t handles = 0;

  bool operator==(const Snapshot&) const = default;
};

std::wstring EnvironmentBlock() {
  wchar_t* block = ::GetEnvironmentStringsW();
  const wchar_t* end = block;
  while (*end != L'\0') end += std::wcslen(end) + 1;
  std::wstring copy(block, static_cast<size_t>(end - block));
  ::FreeEnvironmentStringsW(block);
  return copy;
}

const std::wstring kOldPath = L"C:\\windows\\system32;C:\\windows;C:\\Tools\\bin";

enum class Outcome { Completed, BadAlloc, FailureSwallowed, OtherException };

const char* Name(Outcome outcome) {
  switch (outcome) {
    case Outcome::Completed: return "completed";
    case Outcome::BadAlloc: return "std::bad_alloc";
    case Outcome::FailureSwallowed: return "failure swallowed";
    case Outcome::OtherException: return "another exception";
  }
  return "?";
}

struct Row {
  std::string name;
  long tried = 0;
  long badAlloc = 0;
  long swallowed = 0;
  long handled = 0;         // handled as the design says, the call completed
  long afterLastWrite = 0;  // std::bad_alloc once the bootstrap was complete
};
std::vector<Row>& Table() {
  static std::vector<Row> rows;
  return rows;
}

class AllocationFailureTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { patches_ = new AllocationPatches; }
  static void TearDownTestSuite() {
    delete patches_;
    patches_ = nullptr;
  }

  // Runs `call` in a fresh installed sandbox for N = 1, 2, ... with the N-th
  // allocation failing, until a call makes no allocation fail.
  void EveryAllocationFails(const std::string& name, const std::function<void()>& call) {
    ASSERT_GT(patches_->count(), 0u) << "no heap import found to patch";
    {
      // Once unpatched, so what the first call of a process keeps for good
      // (cached handles of the system's own) is not counted as a leak.
      // The runtime's first exception of the process keeps two handles of
      // its own (its lazily made locks); one is thrown here first.
      Fresh sandbox;
      try {
        throw std::bad_alloc();
      } catch (const std::bad_alloc&) {
      }
      call();
    }
    Row row{name};
    for (long n = 1;; ++n) {
      char step[128];
      std::snprintf(step, sizeof step, "%s, allocation %ld fails", name.c_str(), n);
      TestStep(step);
      Fresh sandbox;
      const Snapshot before = Take(sandbox);
      const Outcome outcome = Run(call, n);
      ++row.tried;
      if (outcome == Outcome::Completed) break;
      const std::vector<std::string> lines = sandbox.sandbox.log().Lines();
      for (const std::string& line : lines)
        EXPECT_TRUE(line == std::string(71, '=') || (line.size() > 22 && line[0] == '[' && line[20] == ']'))
            << step << ": a partial log line: " << line;
      if (outcome == Outcome::FailureSwallowed && HandledAsDesigned(lines)) {
        // The SDK location's own buffer (malloc/realloc): the wrapper logs it
        // and goes on without the SDK, so the call completes.
        ++row.handled;
        continue;
      }
      if (outcome == Outcome::BadAlloc) ++row.badAlloc;
      if (outcome == Outcome::FailureSwallowed) ++row.swallowed;
      EXPECT_EQ(outcome, Outcome::BadAlloc) << step << ": " << Name(outcome) << "; allocated at" << FailedAt();
      const Snapshot after = Take(sandbox);
      if (after.sharedDllPath.empty() || after.sharedDllPath != sandbox.sandbox.sharedDir()) {
        EXPECT_EQ(after.environment == before.environment, true) << step << ": the environment changed";
        EXPECT_EQ(after.sharedDllPath, before.sharedDllPath) << step;
      } else {
        // Failed after the bootstrap's last write: the process is wholly
        // bootstrapped (folder in front of PATH, recorded, marker set), never half.
        EXPECT_EQ(EnvGuard::Get(L"PATH"), sandbox.sandbox.sharedDir() + L";" + kOldPath) << step;
        EXPECT_EQ(EnvGuard::Get(kMarker), L"1") << step;
        ++row.afterLastWrite;
      }
      EXPECT_EQ(after.userDirectoryRegistered, before.userDirectoryRegistered) << step << ": a DLL directory is left";
      EXPECT_EQ(after.handles, before.handles) << step << ": handles; allocated at" << FailedAt();
      if (n > 5000) {
        ADD_FAILURE() << name << ": more than 5000 allocations";
        break;
      }
    }
    Table().push_back(row);
  }

 private:
  struct Fresh {
    Fresh() {
      SharedDllPath().clear();
      DelayLoadSharedDllPath().clear();
      sandbox.env().Set(L"PATH", kOldPath);
      ::CopyFileW((TestBinDirectory() + L"\\ambrel_dlloose.dll").c_str(),
                  (sandbox.sharedDir() + L"\\ambrel_alloc_only_shared.dll").c_str(), FALSE);
    }
    ~Fresh() {
      SharedDllPath().clear();
      DelayLoadSharedDllPath().clear();
    }
    SdkSandbox sandbox{SdkSandbox::Contents::Installed};
  };

  // The wrapper's designed answer to a failed allocation of the SDK
  // location's buffer: logged, and the load goes on without the SDK.
  static bool HandledAsDesigned(const std::vector<std::string>& lines) {
    for (const std::string& line : lines)
      if (line.find("ReadStringFromRegistry: Failed to allocate memory") != std::string::npos ||
          line.find("GetDllPath: Failed to read registry!") != std::string::npos)
        return true;
    return false;
  }

  static Snapshot Take(const Fresh& fresh) {
    Snapshot snapshot;
    snapshot.environment = EnvironmentBlock();
    snapshot.sharedDllPath = SharedDllPath();
    HMODULE probe = ::LoadLibraryExW(L"ambrel_alloc_only_shared.dll", nullptr, LOAD_LIBRARY_SEARCH_USER_DIRS);
    snapshot.userDirectoryRegistered = probe != nullptr;
    if (probe) ::FreeLibrary(probe);
    (void)fresh;
    snapshot.handles = CountProcessHandles();
    return snapshot;
  }

  static Outcome Run(const std::function<void()>& call, long failAt) {
    g_budget = Budget{true, 0, failAt, false};
    Outcome outcome = Outcome::Completed;
    try {
      call();
    } catch (const std::bad_alloc&) {
      outcome = Outcome::BadAlloc;
    } catch (...) {
      outcome = Outcome::OtherException;
    }
    g_budget.armed = false;
    if (outcome == Outcome::Completed && g_budget.failed) outcome = Outcome::FailureSwallowed;
    return outcome;
  }

  static AllocationPatches* patches_;
};
AllocationPatches* AllocationFailureTest::patches_ = nullptr;

TEST_F(AllocationFailureTest, InitializeQel) {
  EveryAllocationFails("InitializeQel", [] { InitializeQel(); });
}

TEST_F(AllocationFailureTest, IsQELInstalled) {
  EveryAllocationFails("QelLoadHelper::IsQELInstalled", [] { QelLoadHelper::IsQELInstalled(); });
}

TEST_F(AllocationFailureTest, DelayLoadHook) {
  EveryAllocationFails("QelLoadHelper::DelayLoadHook", [] {
    DelayLoadInfo info{};
    info.cb = sizeof info;
    info.szDll = "ambrel_alloc_only_shared.dll";
    if (HMODULE loaded = reinterpret_cast<HMODULE>(QelLoadHelper::DelayLoadHook(dliFailLoadLib, &info)))
      ::FreeLibrary(loaded);
  });
}

TEST_F(AllocationFailureTest, UnloadDelayLoadedModules) {
  EveryAllocationFails("QelLoadHelper::UnloadDelayLoadedModules", [] {
    QelLoadHelper::UnloadDelayLoadedModules("first.dll;second.dll;", [](LPCSTR) -> BOOL { return TRUE; });
  });
}

TEST_F(AllocationFailureTest, PrependKalvexPath) {
  EveryAllocationFails("OSxUtil::PrependKalvexPath", [] { OSxUtil::PrependKalvexPath(); });
}

TEST_F(AllocationFailureTest, RemoveAppPathSetting) {
  EveryAllocationFails("OSxUtil::RemoveAppPathSetting", [] { OSxUtil::RemoveAppPathSetting(); });
}

TEST_F(AllocationFailureTest, UpdateSharedDllPath) {
  EveryAllocationFails("OSxFolder::UpdateSharedDllPath", [] { OSxFolder::UpdateSharedDllPath(false); });
}

TEST_F(AllocationFailureTest, GetCallStack) {
#if defined(_MSC_VER)
  // One CI run of this leg, with the package tests beside it, ended this case
  // with an SEH exception of code 0 and the program then hung at exit; alone
  // and in the whole program it passed twice on the same build. Until that is
  // understood it runs in the mingw leg only.
  GTEST_SKIP() << "intermittent SEH exception 0x0 under Wine's dbghelp in the MSVC-ABI leg, not yet explained";
#endif
  EveryAllocationFails("OSxMisc::GetCallStack", [] {
    std::wstring text;
    OSxMisc::GetCallStack(text);
  });
}

// The table the closing note quotes: calls tried per export, how many ended
// in std::bad_alloc, how many swallowed the failure.
class PrintTable : public ::testing::Environment {
 public:
  void TearDown() override {
    long total = 0;
    std::printf("[allocations] %-40s %6s %9s %11s %8s %9s\n", "export", "calls", "bad_alloc", "(after last", "handled",
                "swallowed");
    std::printf("[allocations] %-40s %6s %9s %11s\n", "", "", "", "write)");
    for (const Row& row : Table()) {
      std::printf("[allocations] %-40s %6ld %9ld %11ld %8ld %9ld\n", row.name.c_str(), row.tried, row.badAlloc,
                  row.afterLastWrite, row.handled, row.swallowed);
      total += row.tried;
    }
    std::printf("[allocations] (export, N) pairs tried: %ld\n", total);
  }
};
[[maybe_unused]] const auto* const kTable = ::testing::AddGlobalTestEnvironment(new PrintTable);

}  // namespace
}  // namespace ambrel::test
