#include "osx/CallStack.h"

#include <dbghelp.h>
#include <stdlib.h>
#include <string.h>

#include <array>
#include <cwchar>
#include <exception>
#include <memory>
#include <string>

#include "Ambrel.h"
#include "common/Environment.h"
#include "common/ModuleHelpers.h"
#include "common/WinResource.h"

namespace ambrel {
namespace {

// The parts of the library's path that go into the symbol search path.
constexpr size_t kDriveChars = 3;
constexpr size_t kDirectoryChars = 256;

}  // namespace

std::wstring SymbolSearchModuleDirectory(HMODULE module) {
  const std::wstring file = GetModuleFilePath(module);
  if (file.empty()) return {};
  std::array<wchar_t, kDriveChars> drive{};
  std::array<wchar_t, kDirectoryChars> directory{};
  if (_wsplitpath_s(file.c_str(), drive.data(), drive.size(), directory.data(), directory.size(), nullptr, 0, nullptr,
                    0) != 0) {
    return {};
  }
  std::array<wchar_t, MAX_PATH> joined{};
  if (_wmakepath_s(joined.data(), joined.size(), drive.data(), directory.data(), nullptr, nullptr) != 0) return {};
  return joined.data();
}

std::wstring BuildSymbolSearchPath(HMODULE module) {
  std::wstring path = L".;";
  path += SymbolSearchModuleDirectory(module);
  path += L';';
  for (const wchar_t* name : {L"_NT_SYMBOL_PATH", L"_NT_ALTERNATE_SYMBOL_PATH", L"SYSTEMROOT"}) {
    const auto value = ReadEnvironmentVariable(name);
    if (value && !value->empty()) {
      path += *value;
      path += L';';
    }
  }
  return path;
}

namespace {

// Undecorated names, lazy symbol loading, source lines, and no error boxes.
constexpr DWORD kExtraSymbolOptions =
    SYMOPT_UNDNAME | SYMOPT_DEFERRED_LOADS | SYMOPT_LOAD_LINES | SYMOPT_FAIL_CRITICAL_ERRORS;
static_assert(kExtraSymbolOptions == 0x216);  // NOLINT(*-magic-numbers): the documented value

// Record sizes of the 64-bit Debug Help interface.
constexpr DWORD kModuleInfoSize = 3264;
constexpr DWORD kSymbolInfoSize = 88;
constexpr DWORD kMaxSymbolName = 2000;
constexpr size_t kSymbolBufferSize = kSymbolInfoSize + 2 * kMaxSymbolName;
constexpr DWORD kLineInfoSize = 40;
constexpr size_t kModuleNameChars = 32;
constexpr size_t kSourceLineChars = 280;
static_assert(sizeof(IMAGEHLP_MODULEW64) == kModuleInfoSize);
static_assert(sizeof(SYMBOL_INFOW) == kSymbolInfoSize);
static_assert(sizeof(IMAGEHLP_LINEW64) == kLineInfoSize);

// Appends at most capacity - 1 characters of a NUL-terminated text, as a copy
// into a buffer of that capacity would keep.
void AppendBounded(std::wstring& text, const wchar_t* source, size_t capacity) {
  text.append(source, ::wcsnlen(source, capacity - 1));
}

template <typename Function>
bool Bind(HMODULE module, const char* name, Function& slot) {
  slot = GetExport<Function>(module, name);
  return slot != nullptr;
}

// One per call of GetCallStack: loads and initialises the Debug Help library
// when constructed and cleans it up and unloads it when destroyed.
class CallStackEngine {
 public:
  CallStackEngine() {
    module_.reset(::LoadLibraryW(L"dbghelp.dll"));
    if (!module_) return;
    const HMODULE dbghelp = module_.get();
    // UnDecorateSymbolNameW is never called (SYMOPT_UNDNAME undecorates), but
    // a library without it is not the one this engine was written for.
    const bool bound = Bind(dbghelp, "SymInitializeW", symInitializeW_) && Bind(dbghelp, "SymCleanup", symCleanup_) &&
                       Bind(dbghelp, "SymGetOptions", symGetOptions_) && Bind(dbghelp, "SymSetOptions", symSetOptions_) &&
                       Bind(dbghelp, "StackWalk64", stackWalk64_) &&
                       Bind(dbghelp, "SymFunctionTableAccess64", symFunctionTableAccess64_) &&
                       Bind(dbghelp, "SymGetModuleBase64", symGetModuleBase64_) &&
                       Bind(dbghelp, "SymGetLineFromAddrW64", symGetLineFromAddrW64_) &&
                       Bind(dbghelp, "SymGetModuleInfoW64", symGetModuleInfoW64_) &&
                       Bind(dbghelp, "SymFromAddrW", symFromAddrW_) &&
                       Bind(dbghelp, "UnDecorateSymbolNameW", unDecorateSymbolNameW_);
    if (!bound) return;
    symSetOptions_(symGetOptions_() | kExtraSymbolOptions);
    const std::wstring searchPath = BuildSymbolSearchPath(ModuleInstanceHandle);
    ready_ = symInitializeW_(::GetCurrentProcess(), searchPath.c_str(), TRUE) == 1;
  }

  ~CallStackEngine() {
    if (ready_) symCleanup_(::GetCurrentProcess());
    ready_ = false;
    // module_ unloads dbghelp.dll after this.
  }

  CallStackEngine(const CallStackEngine&) = delete;
  CallStackEngine& operator=(const CallStackEngine&) = delete;
  CallStackEngine(CallStackEngine&&) = delete;
  CallStackEngine& operator=(CallStackEngine&&) = delete;

  bool ready() const noexcept { return ready_; }
  std::wstring& text() noexcept { return text_; }

  // Walks the stack from a copy of a thread context into text(); true when it
  // holds at least one frame. scratch receives a copy of the text.
  bool WalkFrom(CONTEXT& context, std::wstring& scratch) {
    if (!ready_) return false;
    text_.clear();
    auto* const process = ::GetCurrentProcess();
    auto* const thread = ::GetCurrentThread();

    STACKFRAME64 frame = {};
    frame.AddrPC.Offset = context.Rip;
    frame.AddrPC.Mode = AddrModeFlat;
    frame.AddrFrame.Offset = context.Rbp;
    frame.AddrFrame.Mode = AddrModeFlat;
    frame.AddrStack.Offset = context.Rsp;
    frame.AddrStack.Mode = AddrModeFlat;
    const auto step = [&] {
      return stackWalk64_(IMAGE_FILE_MACHINE_AMD64, process, thread, &frame, &context, nullptr,
                          symFunctionTableAccess64_, symGetModuleBase64_, nullptr) != FALSE;
    };

    if (step()) {
      for (;;) {
        if (frame.AddrPC.Offset == frame.AddrReturn.Offset) break;
        if (frame.AddrPC.Offset == 0) {
          // A frame without a program counter gets no line.
          if (frame.AddrReturn.Offset == 0 || !step()) break;
          continue;
        }
        AppendFrameLine(process, frame.AddrPC.Offset);
        text_ += L"\t\n";
        if (frame.AddrReturn.Offset == 0 || !step()) break;
      }
    }
    if (text_.empty()) return false;
    scratch = text_;
    return true;
  }

  // An exception raised while walking inside the exception filter is carried
  // out of the guard and rethrown on the ordinary path.
  // Reached only when the walk itself throws (out of memory while the text
  // grows), which no test can bring about inside an exception filter.
  void KeepError(std::exception_ptr error) noexcept { pendingError_ = std::move(error); }  // GCOVR_EXCL_LINE
  void RethrowError() {
    if (pendingError_) std::rethrow_exception(std::exchange(pendingError_, nullptr));  // GCOVR_EXCL_LINE
  }

 private:
  // "<module>! <symbol> [<file> @ <line>]", with a placeholder for each piece
  // Debug Help cannot answer.
  void AppendFrameLine(HANDLE process, DWORD64 pc) {
    IMAGEHLP_MODULEW64 module = {};
    module.SizeOfStruct = kModuleInfoSize;
    if (symGetModuleInfoW64_(process, pc, &module)) {
      AppendBounded(text_, module.ModuleName, kModuleNameChars);
      text_ += L"! ";
    } else {
      text_ += L"_NA_\t";
    }

    alignas(SYMBOL_INFOW) std::array<unsigned char, kSymbolBufferSize> symbolBuffer{};
    auto* symbol = reinterpret_cast<SYMBOL_INFOW*>(symbolBuffer.data());
    symbol->SizeOfStruct = kSymbolInfoSize;
    symbol->MaxNameLen = kMaxSymbolName;
    DWORD64 symbolDisplacement = 0;
    if (symFromAddrW_(process, pc, &symbolDisplacement, symbol)) {
      AppendBounded(text_, symbol->Name, kMaxSymbolName);
      text_ += L' ';
    } else {
      text_ += L"_NA_\t";
    }

    IMAGEHLP_LINEW64 line = {};
    line.SizeOfStruct = kLineInfoSize;
    DWORD lineDisplacement = 0;
    if (symGetLineFromAddrW64_(process, pc, &lineDisplacement, &line) && line.FileName) {
      // "[file @ line]" in a buffer of kSourceLineChars characters.
      std::wstring source = L"[" + std::wstring(line.FileName) + L" @ " + std::to_wstring(static_cast<int>(line.LineNumber)) + L"]";
      if (source.size() > kSourceLineChars - 1) source.resize(kSourceLineChars - 1);
      text_ += source;
    } else {
      text_ += L"[NULL]";
    }
  }

  bool ready_ = false;
  UniqueModule module_;
  decltype(&::SymInitializeW) symInitializeW_ = nullptr;
  decltype(&::SymCleanup) symCleanup_ = nullptr;
  decltype(&::SymGetOptions) symGetOptions_ = nullptr;
  decltype(&::SymSetOptions) symSetOptions_ = nullptr;
  decltype(&::StackWalk64) stackWalk64_ = nullptr;
  decltype(&::SymFunctionTableAccess64) symFunctionTableAccess64_ = nullptr;
  decltype(&::SymGetModuleBase64) symGetModuleBase64_ = nullptr;
  decltype(&::SymGetLineFromAddrW64) symGetLineFromAddrW64_ = nullptr;
  decltype(&::SymGetModuleInfoW64) symGetModuleInfoW64_ = nullptr;
  decltype(&::SymFromAddrW) symFromAddrW_ = nullptr;
  decltype(&::UnDecorateSymbolNameW) unDecorateSymbolNameW_ = nullptr;
  std::wstring text_;
  std::exception_ptr pendingError_;
};

// The engine of the call in progress; null between calls.
CallStackEngine* g_engine = nullptr;

// Points g_engine at an engine for the life of the call.
class CurrentEngine {
 public:
  explicit CurrentEngine(CallStackEngine& engine) noexcept { g_engine = &engine; }
  ~CurrentEngine() { g_engine = nullptr; }
  CurrentEngine(const CurrentEngine&) = delete;
  CurrentEngine& operator=(const CurrentEngine&) = delete;
  CurrentEngine(CurrentEngine&&) = delete;
  CurrentEngine& operator=(CurrentEngine&&) = delete;
};

// Exception filter of the capture: walks the stack from the faulting context
// and lets the guard handle the fault.
int CaptureFilter(const EXCEPTION_POINTERS* pointers) noexcept {
  CONTEXT context;
  const CONTEXT* record = pointers ? pointers->ContextRecord : nullptr;
  // Without a context record memcpy_s zero-fills the copy and reports EINVAL
  // through the runtime's invalid-parameter handler.
  memcpy_s(&context, sizeof(context), record, sizeof(context));
  if (g_engine) {
    try {
      std::wstring scratch;
      g_engine->WalkFrom(context, scratch);
    } catch (...) {
      g_engine->KeepError(std::current_exception());  // GCOVR_EXCL_LINE: see KeepError
    }
  }
  return EXCEPTION_EXECUTE_HANDLER;
}

// Compiler-specific (clang): its structured-exception scopes only catch a
// fault raised inside a called function, so the write lives in a function of
// its own that is never inlined. MSVC catches the fault in place.
#if defined(__clang__)
__declspec(noinline) void FaultForCapture() {
  char* volatile address = nullptr;
  *address = 0;  // NOLINT(clang-analyzer-core.NullDereference): the fault is the point
}
#endif

#if defined(__clang__) || defined(_MSC_VER)
// Provokes an access violation inside a guard whose filter records the stack.
// Holds no object with a destructor, as a structured-exception scope requires.
__declspec(noinline) void CaptureCallingThread() {
  __try {
#if defined(__clang__)  // Compiler-specific: see FaultForCapture.
    FaultForCapture();
#else
    char* volatile address = nullptr;
    *address = 0;
#endif
  } __except (CaptureFilter(GetExceptionInformation())) {
    // The filter did the work; execution continues behind the guard.
  }
}
#else
// Compiler-specific (GCC): it has no structured-exception guards, so the
// calling thread's context is taken here instead of from a fault, and walked
// by the same filter; the stack then starts in this routine.
__declspec(noinline) void CaptureCallingThread() {
  CONTEXT context;
  ::RtlCaptureContext(&context);
  EXCEPTION_POINTERS pointers = {nullptr, &context};
  // The filter's answer is for a guard; there is none here.
  static_cast<void>(CaptureFilter(&pointers));
}
#endif

}  // namespace
}  // namespace ambrel

bool OSxMisc::GetCallStack(std::wstring& text) {
  using ambrel::CallStackEngine;
  const auto engine = std::make_unique<CallStackEngine>();
  const ambrel::CurrentEngine current(*engine);
  if (!engine->ready()) return false;

  engine->text().clear();
  ambrel::CaptureCallingThread();
  engine->RethrowError();
  if (engine->text().empty()) return false;
  if (&engine->text() != &text) text = std::move(engine->text());
  engine->text().clear();
  return true;
}
