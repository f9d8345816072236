#include "tests/support/BareDbghelp.h"

#include <windows.h>

#include <dbghelp.h>

namespace ambrel::test {
namespace {

struct Dbghelp {
  HMODULE module = nullptr;
  decltype(&::SymInitializeW) symInitializeW = nullptr;
  decltype(&::SymCleanup) symCleanup = nullptr;
  decltype(&::SymGetOptions) symGetOptions = nullptr;
  decltype(&::SymSetOptions) symSetOptions = nullptr;
  decltype(&::StackWalk64) stackWalk64 = nullptr;
  decltype(&::SymFunctionTableAccess64) symFunctionTableAccess64 = nullptr;
  decltype(&::SymGetModuleBase64) symGetModuleBase64 = nullptr;
  decltype(&::SymGetLineFromAddrW64) symGetLineFromAddrW64 = nullptr;
  decltype(&::SymGetModuleInfoW64) symGetModuleInfoW64 = nullptr;
  decltype(&::SymFromAddrW) symFromAddrW = nullptr;
};

template <typename Function>
void Bind(HMODULE module, const char* name, Function& slot) {
  slot = reinterpret_cast<Function>(reinterpret_cast<void*>(::GetProcAddress(module, name)));
}

std::wstring SearchPath() {
  wchar_t file[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, file, MAX_PATH);
  std::wstring path = L".;" + std::wstring(file);
  path.erase(path.find_last_of(L'\\') + 1);
  path += L';';
  for (const wchar_t* name : {L"_NT_SYMBOL_PATH", L"_NT_ALTERNATE_SYMBOL_PATH", L"SYSTEMROOT"}) {
    wchar_t value[1024];
    const DWORD length = ::GetEnvironmentVariableW(name, value, 1024);
    if (length > 0 && length < 1024) path += std::wstring(value, length) + L';';
  }
  return path;
}

// The frame's three look-ups and its text, as the library writes them.
void AppendFrame(const Dbghelp& d, HANDLE process, DWORD64 pc, std::wstring& text) {
  IMAGEHLP_MODULEW64 module = {};
  module.SizeOfStruct = sizeof module;
  if (d.symGetModuleInfoW64(process, pc, &module)) {
    text += module.ModuleName;
    text += L"! ";
  } else {
    text += L"_NA_\t";
  }
  alignas(SYMBOL_INFOW) unsigned char buffer[sizeof(SYMBOL_INFOW) + 2 * 2000] = {};
  auto* symbol = reinterpret_cast<SYMBOL_INFOW*>(buffer);
  symbol->SizeOfStruct = sizeof(SYMBOL_INFOW);
  symbol->MaxNameLen = 2000;
  DWORD64 displacement = 0;
  if (d.symFromAddrW(process, pc, &displacement, symbol)) {
    text += symbol->Name;
    text += L' ';
  } else {
    text += L"_NA_\t";
  }
  IMAGEHLP_LINEW64 line = {};
  line.SizeOfStruct = sizeof line;
  DWORD lineDisplacement = 0;
  if (d.symGetLineFromAddrW64(process, pc, &lineDisplacement, &line) && line.FileName) {
    text += L"[" + std::wstring(line.FileName) + L" @ " + std::to_wstring(line.LineNumber) + L"]";
  } else {
    text += L"[NULL]";
  }
}

void Walk(const Dbghelp& d, CONTEXT& context, std::wstring& text) {
  const HANDLE process = ::GetCurrentProcess();
  const HANDLE thread = ::GetCurrentThread();
  STACKFRAME64 frame = {};
  frame.AddrPC = {context.Rip, 0, AddrModeFlat};
  frame.AddrFrame = {context.Rbp, 0, AddrModeFlat};
  frame.AddrStack = {context.Rsp, 0, AddrModeFlat};
  auto step = [&] {
    return d.stackWalk64(IMAGE_FILE_MACHINE_AMD64, process, thread, &frame, &context, nullptr,
                         d.symFunctionTableAccess64, d.symGetModuleBase64, nullptr) != FALSE;
  };
  if (!step()) return;
  for (;;) {
    if (frame.AddrPC.Offset == frame.AddrReturn.Offset) break;
    if (frame.AddrPC.Offset == 0) {
      if (frame.AddrReturn.Offset == 0 || !step()) break;
      continue;
    }
    AppendFrame(d, process, frame.AddrPC.Offset, text);
    text += L"\t\n";
    if (frame.AddrReturn.Offset == 0 || !step()) break;
  }
}

__declspec(noinline) void CaptureAndWalk(const Dbghelp& d, std::wstring& text) {
  CONTEXT context;
  ::RtlCaptureContext(&context);
  Walk(d, context, text);
}

__declspec(noinline) void CaptureTwoDeep(const Dbghelp& d, std::wstring& text) {
  CaptureAndWalk(d, text);
  ::GetCurrentThreadId();  // keeps the call above from becoming a tail call
}

}  // namespace

bool BareDbghelpCallStack(std::wstring& text, const void* alsoName) {
  Dbghelp d;
  d.module = ::LoadLibraryW(L"dbghelp.dll");
  if (!d.module) return false;
  Bind(d.module, "SymInitializeW", d.symInitializeW);
  Bind(d.module, "SymCleanup", d.symCleanup);
  Bind(d.module, "SymGetOptions", d.symGetOptions);
  Bind(d.module, "SymSetOptions", d.symSetOptions);
  Bind(d.module, "StackWalk64", d.stackWalk64);
  Bind(d.module, "SymFunctionTableAccess64", d.symFunctionTableAccess64);
  Bind(d.module, "SymGetModuleBase64", d.symGetModuleBase64);
  Bind(d.module, "SymGetLineFromAddrW64", d.symGetLineFromAddrW64);
  Bind(d.module, "SymGetModuleInfoW64", d.symGetModuleInfoW64);
  Bind(d.module, "SymFromAddrW", d.symFromAddrW);
  d.symSetOptions(d.symGetOptions() | SYMOPT_UNDNAME | SYMOPT_DEFERRED_LOADS | SYMOPT_LOAD_LINES |
                  SYMOPT_FAIL_CRITICAL_ERRORS);
  bool ok = false;
  if (d.symInitializeW(::GetCurrentProcess(), SearchPath().c_str(), TRUE)) {
    std::wstring walked;
    CaptureTwoDeep(d, walked);
    if (alsoName) {
      AppendFrame(d, ::GetCurrentProcess(), reinterpret_cast<DWORD64>(alsoName), walked);
      walked += L"\t\n";
    }
    ok = !walked.empty();
    if (ok) text = std::move(walked);
    d.symCleanup(::GetCurrentProcess());
  }
  ::FreeLibrary(d.module);
  return ok;
}

}  // namespace ambrel::test
