#include "osx/CallStackEngine.h"

#include <array>
#include <cwchar>
#include <utility>

#include "common/ModuleHelpers.h"
#include "osx/SymbolSearchPath.h"

namespace ambrel {
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

}  // namespace

CallStackEngine::CallStackEngine() {
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

CallStackEngine::~CallStackEngine() {
  if (ready_) symCleanup_(::GetCurrentProcess());
  ready_ = false;
  // module_ unloads dbghelp.dll after this.
}

bool CallStackEngine::WalkFrom(CONTEXT& context, std::wstring& scratch) {
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
    return stackWalk64_(IMAGE_FILE_MACHINE_AMD64, process, thread, &frame, &context, nullptr, symFunctionTableAccess64_,
                        symGetModuleBase64_, nullptr) != FALSE;
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

// Reached only when the walk itself throws (out of memory while the text
// grows), which no test can bring about inside an exception filter.
// GCOVR_EXCL_START
void CallStackEngine::KeepError(std::exception_ptr error) noexcept { pendingError_ = std::move(error); }
// GCOVR_EXCL_STOP

void CallStackEngine::RethrowError() {
  if (pendingError_) std::rethrow_exception(std::exchange(pendingError_, nullptr));  // GCOVR_EXCL_LINE
}

// "<module>! <symbol> [<file> @ <line>]", with a placeholder for each piece
// Debug Help cannot answer.
void CallStackEngine::AppendFrameLine(HANDLE process, DWORD64 pc) {
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
    std::wstring source =
        L"[" + std::wstring(line.FileName) + L" @ " + std::to_wstring(static_cast<int>(line.LineNumber)) + L"]";
    if (source.size() > kSourceLineChars - 1) source.resize(kSourceLineChars - 1);
    text_ += source;
  } else {
    text_ += L"[NULL]";
  }
}

}  // namespace ambrel
