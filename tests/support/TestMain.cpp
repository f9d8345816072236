// The main of every GoogleTest program of the suite. Besides running the
// tests it keeps a watchdog: a program still running shortly before CTest's
// time limit (AMBREL_TEST_TIME_LIMIT seconds, set by the build for each test)
// prints the test it was in, the last step the listener saw and where its
// main thread stands, then ends itself. A hang is then a named failure in the
// log rather than a silent timeout.
#include <gtest/gtest.h>

#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "tests/support/TestStep.h"

namespace {

// Fixed buffers written without allocating: the watchdog must be able to
// read them while the main thread, stopped anywhere, holds the heap's lock.
struct Progress {
  CRITICAL_SECTION lock;
  char test[512];
  char step[768];
};
Progress g_progress;
HANDLE g_mainThread = nullptr;

void SetField(char* field, size_t size, const char* text) {
  ::EnterCriticalSection(&g_progress.lock);
  std::snprintf(field, size, "%s", text);
  ::LeaveCriticalSection(&g_progress.lock);
}

class ProgressListener : public ::testing::EmptyTestEventListener {
  void OnTestStart(const ::testing::TestInfo& info) override {
    char text[sizeof(Progress::test)];
    std::snprintf(text, sizeof text, "%s.%s", info.test_suite_name(), info.name());
    SetField(g_progress.test, sizeof g_progress.test, text);
    SetField(g_progress.step, sizeof g_progress.step, "test started (set-up)");
  }
  void OnTestPartResult(const ::testing::TestPartResult& result) override {
    char text[sizeof(Progress::step)];
    std::snprintf(text, sizeof text, "%s at %s:%d", result.failed() ? "failure" : "result",
                  result.file_name() ? result.file_name() : "?", result.line_number());
    SetField(g_progress.step, sizeof g_progress.step, text);
  }
  void OnTestEnd(const ::testing::TestInfo& info) override {
    char text[sizeof(Progress::test)];
    std::snprintf(text, sizeof text, "%s.%s", info.test_suite_name(), info.name());
    SetField(g_progress.test, sizeof g_progress.test, "(between tests)");
    char step[sizeof(Progress::step)];
    std::snprintf(step, sizeof step, "%s ended (tear-down done)", text);
    SetField(g_progress.step, sizeof g_progress.step, step);
  }
};

void WriteErr(const char* text) {
  DWORD written = 0;
  ::WriteFile(::GetStdHandle(STD_ERROR_HANDLE), text, static_cast<DWORD>(std::strlen(text)), &written, nullptr);
}

// Where the main thread stands: its frames as module+offset, unwound from
// its suspended context. Run on a thread of its own that the watchdog gives
// a few seconds: the unwinder takes the loader's lock, which the main thread
// may hold.
DWORD WINAPI PrintMainStack(void*) {
  if (::SuspendThread(g_mainThread) == static_cast<DWORD>(-1)) return 1;
  CONTEXT context{};
  context.ContextFlags = CONTEXT_FULL;
  if (!::GetThreadContext(g_mainThread, &context)) return 1;
  WriteErr("[watchdog] main thread's frames (module+offset):\n");
  for (int frame = 0; frame < 32 && context.Rip; ++frame) {
    char line[400];
    HMODULE module = nullptr;
    char name[MAX_PATH] = "?";
    if (::GetModuleHandleExA(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                             reinterpret_cast<const char*>(context.Rip), &module)) {
      char full[MAX_PATH] = {};
      ::GetModuleFileNameA(module, full, MAX_PATH);
      const char* base = std::strrchr(full, '\\');
      std::snprintf(name, sizeof name, "%s", base ? base + 1 : full);
    }
    std::snprintf(line, sizeof line, "[watchdog]   #%02d %s+0x%llx\n", frame, name,
                  static_cast<unsigned long long>(context.Rip - reinterpret_cast<DWORD64>(module)));
    WriteErr(line);
    DWORD64 imageBase = 0;
    PRUNTIME_FUNCTION function = ::RtlLookupFunctionEntry(context.Rip, &imageBase, nullptr);
    if (!function) {  // a leaf: the return address is on top of the stack
      context.Rip = *reinterpret_cast<DWORD64*>(context.Rsp);
      context.Rsp += 8;
      continue;
    }
    void* handlerData = nullptr;
    DWORD64 establisher = 0;
    ::RtlVirtualUnwind(UNW_FLAG_NHANDLER, imageBase, context.Rip, function, &context, &handlerData, &establisher,
                       nullptr);
  }
  return 0;
}

DWORD WINAPI Watch(void* seconds) {
  ::Sleep(static_cast<DWORD>(reinterpret_cast<uintptr_t>(seconds)) * 1000);
  char text[sizeof(Progress::test) + sizeof(Progress::step) + 200];
  // Not under the lock: a listener stopped while holding it must not stop this.
  std::snprintf(text, sizeof text,
                "\n[watchdog] the program ran for %u s, the time it is given before CTest's limit: ending it.\n"
                "[watchdog] test: %s\n[watchdog] last step: %s\n",
                static_cast<unsigned>(reinterpret_cast<uintptr_t>(seconds)), g_progress.test, g_progress.step);
  WriteErr(text);
  HANDLE printer = ::CreateThread(nullptr, 0, PrintMainStack, nullptr, 0, nullptr);
  if (printer) ::WaitForSingleObject(printer, 5000);
  WriteErr("[watchdog] ended with exit code 124\n");
  ::TerminateProcess(::GetCurrentProcess(), 124);
  return 0;
}

}  // namespace

namespace ambrel::test {

void TestStep(const char* what) { SetField(g_progress.step, sizeof g_progress.step, what); }

}  // namespace ambrel::test

int main(int argc, char** argv) {
  ::InitializeCriticalSection(&g_progress.lock);
  std::snprintf(g_progress.test, sizeof g_progress.test, "(none started)");
  std::snprintf(g_progress.step, sizeof g_progress.step, "program start");
  ::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentThread(), ::GetCurrentProcess(), &g_mainThread, 0, FALSE,
                    DUPLICATE_SAME_ACCESS);
  ::testing::InitGoogleTest(&argc, argv);
  ::testing::UnitTest::GetInstance()->listeners().Append(new ProgressListener);
  // The limit CTest gives this program, less a margin for the report and for
  // Wine's start; without one (a program run by hand) there is no watchdog.
  const char* limit = std::getenv("AMBREL_TEST_TIME_LIMIT");
  const long seconds = limit ? std::strtol(limit, nullptr, 10) : 0;
  if (seconds > 30) {
    const long allowed = seconds - (seconds >= 300 ? 60 : 20);
    HANDLE watchdog =
        ::CreateThread(nullptr, 0, Watch, reinterpret_cast<void*>(static_cast<uintptr_t>(allowed)), 0, nullptr);
    if (watchdog) ::CloseHandle(watchdog);
  }
  return RUN_ALL_TESTS();
}
