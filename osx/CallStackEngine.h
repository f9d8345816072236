// The Debug Help library as the call stack uses it: dbghelp.dll loaded and
// bound at run time, set up for the whole process, and the walk of one thread
// context into "module! symbol [file @ line]" lines.
#pragma once

#include <windows.h>
#include <dbghelp.h>

#include <exception>
#include <string>

#include "common/WinResource.h"

namespace ambrel {

// Loads and initialises the Debug Help library when constructed, cleans it up
// and unloads it when destroyed: one per GetCallStack call.
class CallStackEngine {
 public:
  CallStackEngine();
  ~CallStackEngine();
  CallStackEngine(const CallStackEngine&) = delete;
  CallStackEngine& operator=(const CallStackEngine&) = delete;
  CallStackEngine(CallStackEngine&&) = delete;
  CallStackEngine& operator=(CallStackEngine&&) = delete;

  // dbghelp.dll loaded, every function bound and SymInitializeW returned 1.
  bool ready() const noexcept { return ready_; }
  std::wstring& text() noexcept { return text_; }

  // Walks the stack from a copy of a thread context into text(); true when it
  // holds at least one frame. scratch receives a copy of the text.
  bool WalkFrom(CONTEXT& context, std::wstring& scratch);

  // An exception raised while walking inside an exception filter is kept here
  // and rethrown on the ordinary path, once the guard is left.
  void KeepError(std::exception_ptr error) noexcept;
  void RethrowError();

 private:
  void AppendFrameLine(HANDLE process, DWORD64 pc);

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

}  // namespace ambrel
