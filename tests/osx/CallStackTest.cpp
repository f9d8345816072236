#include "osx/SymbolSearchPath.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <errno.h>
#include <stdlib.h>

#include <cstdio>
#include <cwctype>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

#include "Ambrel.h"
#include "tests/support/TestSupport.h"

// After <windows.h> (through Ambrel.h): the host-session tests call Debug Help themselves.
#include <dbghelp.h>

namespace ambrel {
namespace {

using test::EnvGuard;
using test::LibraryCopy;
using ::testing::HasSubstr;

using GetCallStackFn = bool (*)(std::wstring&);
const char* const kGetCallStackExport = AMBREL_EXPORT_NAME(
    "?GetCallStack@OSxMisc@@SA_NAEAV?$basic_string@_WU?$char_traits@_W@std@@V?$allocator@_W@2@@std@@@Z",
    "_ZN7OSxMisc12GetCallStackERNSt7__cxx1112basic_stringIwSt11char_traitsIwESaIwEEE");

// Set in the environment of the test process that runs with dbghelp.dll disabled.
const wchar_t kDbghelpDisabledFlag[] = L"AMBREL_TEST_DBGHELP_DISABLED";
// Set in the environment of the child that prints its symbol search path.
const wchar_t kPrintSearchPathFlag[] = L"AMBREL_TEST_PRINT_SEARCH_PATH";

std::vector<std::wstring> Lines(const std::wstring& text) {
  std::vector<std::wstring> lines;
  size_t start = 0;
  for (size_t end; (end = text.find(L'\n', start)) != std::wstring::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  if (start < text.size()) lines.push_back(text.substr(start));
  return lines;
}

// Module part of a frame line ("Ambrel" of "Ambrel! name [file @ 1]").
std::wstring ModuleOf(const std::wstring& line) { return line.substr(0, line.find(L"! ")); }

// Windows takes the module name from the file name as it is written; Wine's
// dbghelp lowers it ("ambrel"), so names are compared without case.
bool IsModule(const std::wstring& line, const wchar_t* name) { return _wcsicmp(ModuleOf(line).c_str(), name) == 0; }

bool DbghelpLoaded() { return ::GetModuleHandleW(L"dbghelp.dll") != nullptr; }

// Ambrel.dll has a PDB in the clang/lld and MSVC builds. The GCC build links it
// with GNU ld, which writes none, and leaves GCC's DWARF in the DLL instead.
#if defined(AMBREL_HAS_PDB)
constexpr bool kDllHasPdb = true;
#else
constexpr bool kDllHasPdb = false;
#endif
constexpr char kNoPdbReason[] = "this build gives Ambrel.dll no PDB (GCC, linked by GNU ld)";

// Companions of a library copy that names its frames: the PDB where there is one.
std::vector<std::wstring> SymbolCompanions() {
  if (kDllHasPdb) return {L"Ambrel.pdb"};
  return {};
}

// ---- symbol search path ----

class SymbolSearchPath : public ::testing::Test {
 protected:
  EnvGuard env{L"_NT_SYMBOL_PATH", L"_NT_ALTERNATE_SYMBOL_PATH", L"SYSTEMROOT"};
  // The test program links the library's objects itself, so its own module
  // stands for the library here.
  const HMODULE module = ::GetModuleHandleW(nullptr);
  const std::wstring moduleDir = test::TestBinDirectory() + L"\\";
};

TEST_F(SymbolSearchPath, OnlySystemRootSet) {
  env.Unset(L"_NT_SYMBOL_PATH");
  env.Unset(L"_NT_ALTERNATE_SYMBOL_PATH");
  env.Set(L"SYSTEMROOT", L"C:\\Windows");
  EXPECT_EQ(BuildSymbolSearchPath(module), L".;" + moduleDir + L";C:\\Windows;");
}

TEST_F(SymbolSearchPath, AllThreeSetInOrderAndUnexpanded) {
  env.Set(L"_NT_SYMBOL_PATH", L"srv*C:\\Symbols*https://symbols.example.com");
  env.Set(L"_NT_ALTERNATE_SYMBOL_PATH", L"%SYSTEMROOT%\\Alt;C:\\Windows");
  env.Set(L"SYSTEMROOT", L"C:\\Windows");
  EXPECT_EQ(BuildSymbolSearchPath(module), L".;" + moduleDir +
                                               L";srv*C:\\Symbols*https://symbols.example.com;"
                                               L"%SYSTEMROOT%\\Alt;C:\\Windows;C:\\Windows;");
}

TEST_F(SymbolSearchPath, EmptiedVariablesAreLeftOut) {
  // The C runtime drops a variable that is set to "", so this is also the
  // case of all three unset; a block that really holds empty values is below.
  env.Set(L"_NT_SYMBOL_PATH", L"");
  env.Set(L"_NT_ALTERNATE_SYMBOL_PATH", L"");
  env.Set(L"SYSTEMROOT", L"");
  EXPECT_EQ(BuildSymbolSearchPath(module), L".;" + moduleDir + L";");
}

TEST_F(SymbolSearchPath, EmptyValuesInTheInheritedBlockAreLeftOut) {
  // SetEnvironmentVariableW keeps "NAME=" entries in the Win32 block, which a
  // child process inherits; its C runtime then holds the names with empty
  // values. Wine gives every new process its SystemRoot again, so only the two
  // symbol-path variables stay empty there; the test above empties SYSTEMROOT.
  env.Set(L"_NT_SYMBOL_PATH", L"");
  env.Set(L"_NT_ALTERNATE_SYMBOL_PATH", L"");
  env.Set(kPrintSearchPathFlag, L"1");
  const test::ProcessResult child =
      test::RunProcess(test::TestBinDirectory() + L"\\test_callstack.exe", L"--gtest_filter=SearchPathChild.Print");
  ASSERT_EQ(child.exitCode, 0u) << child.output;
  EXPECT_THAT(child.output, HasSubstr("empty values seen: 2"));
  const size_t root = child.output.find("SYSTEMROOT: <");
  ASSERT_NE(root, std::string::npos) << child.output;
  const size_t rootEnd = child.output.find('>', root);
  const std::string systemRoot = child.output.substr(root + 13, rootEnd - root - 13);
  ASSERT_FALSE(systemRoot.empty());
  EXPECT_THAT(child.output, HasSubstr("search path: <.;" + test::Narrow(moduleDir) + ";" + systemRoot + ";>"));
}

// Runs only as the child of the test above.
TEST(SearchPathChild, Print) {
  if (!EnvGuard::Get(kPrintSearchPathFlag))
    GTEST_SKIP() << "runs as a child of EmptyValuesInTheInheritedBlockAreLeftOut";
  int emptyValues = 0;
  for (const wchar_t* name : {L"_NT_SYMBOL_PATH", L"_NT_ALTERNATE_SYMBOL_PATH"}) {
    size_t required = 0;
    // Set but empty: only the terminator is needed (the size query answers 0
    // on Windows, ERANGE with Wine's runtime).
    const errno_t query = _wgetenv_s(&required, nullptr, 0, name);
    if ((query == 0 || query == ERANGE) && required == 1) ++emptyValues;
  }
  std::printf("empty values seen: %d\nSYSTEMROOT: <%s>\nsearch path: <%s>\n", emptyValues,
              test::Narrow(EnvGuard::Get(L"SYSTEMROOT").value_or(L"")).c_str(),
              test::Narrow(BuildSymbolSearchPath(::GetModuleHandleW(nullptr))).c_str());
  std::fflush(stdout);
}

TEST_F(SymbolSearchPath, LibraryCopyGivesItsOwnFolder) {
  env.Unset(L"_NT_SYMBOL_PATH");
  env.Unset(L"_NT_ALTERNATE_SYMBOL_PATH");
  env.Set(L"SYSTEMROOT", L"C:\\Windows");
  LibraryCopy library;
  EXPECT_EQ(SymbolSearchModuleDirectory(library.module()), library.directory() + L"\\");
  EXPECT_EQ(BuildSymbolSearchPath(library.module()), L".;" + library.directory() + L"\\;C:\\Windows;");
}

TEST_F(SymbolSearchPath, UnknownModuleGivesAnEmptyFolderPiece) {
  env.Unset(L"_NT_SYMBOL_PATH");
  env.Unset(L"_NT_ALTERNATE_SYMBOL_PATH");
  env.Set(L"SYSTEMROOT", L"C:\\Windows");
  // Not a loaded module: GetModuleFileNameW fails.
  const HMODULE bogus = reinterpret_cast<HMODULE>(static_cast<uintptr_t>(0x10000));
  EXPECT_EQ(SymbolSearchModuleDirectory(bogus), L"");
  EXPECT_EQ(BuildSymbolSearchPath(bogus), L".;;C:\\Windows;");
}

// ---- capture ----

// Every frame line ends with a tab and a single line feed, and holds the
// three pieces or their placeholders.
void ExpectWellFormed(const std::wstring& text) {
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.find(L'\r'), std::wstring::npos);
  EXPECT_EQ(text.substr(text.size() - 2), L"\t\n");
  for (const std::wstring& line : Lines(text)) {
    SCOPED_TRACE(test::Narrow(line));
    ASSERT_GE(line.size(), 2u);
    EXPECT_EQ(line.back(), L'\t');
    const bool hasModule = line.find(L"! ") != std::wstring::npos || line.starts_with(L"_NA_\t");
    EXPECT_TRUE(hasModule);
    const bool hasSource =
        line.ends_with(L"[NULL]\t") || (line.find(L" @ ") != std::wstring::npos && line.ends_with(L"]\t"));
    EXPECT_TRUE(hasSource);
  }
}

// The capture routine: the export itself owns the first frame.
bool NamesCaptureRoutine(const std::wstring& line) {
  return line.find(L"! OSxMisc::GetCallStack ") != std::wstring::npos;
}

// Lines of osx/CallStack.cpp, as the source reads now, where the first frame
// may stand: the capture in OSxMisc::GetCallStack. Compiler-specific: MSVC
// faults in place (exactly that line); clang and GCC take the context with
// RtlCaptureContext, whose return address lies at or behind that call, before
// the engine is ended.
std::pair<int, int> CaptureLinesInSource() {
  const auto lines = test::SplitLines(test::ReadFileBytes(test::Widen(AMBREL_CALLSTACK_SOURCE)));
#if defined(_MSC_VER) && !defined(__clang__)
  const char* const first = "*address = 0;";
  const char* const last = first;
#else
  const char* const first = "::RtlCaptureContext(&context);";
  const char* const last = "return ambrel::EndCapture(text);";
#endif
  bool inExport = false;
  int firstLine = 0;
  for (size_t i = 0; i < lines.size(); ++i) {
    const int number = static_cast<int>(i + 1);
    if (lines[i].find("bool OSxMisc::GetCallStack(") != std::string::npos) inExport = true;
    if (!inExport) continue;
    if (firstLine == 0 && lines[i].find(first) != std::string::npos) firstLine = number;
    if (firstLine != 0 && lines[i].find(last) != std::string::npos) return {firstLine, number};
  }
  return {0, 0};
}

// The "[file @ line]" piece of a frame line, split; file empty when the line
// has none.
struct SourcePiece {
  std::wstring file;
  int line = 0;
};
SourcePiece SourceOf(const std::wstring& frameLine) {
  const size_t open = frameLine.rfind(L" [");
  const size_t at = frameLine.rfind(L" @ ");
  if (open == std::wstring::npos || at == std::wstring::npos || at < open || !frameLine.ends_with(L"]\t")) return {};
  const std::wstring number = frameLine.substr(at + 3, frameLine.size() - 2 - (at + 3));
  if (number.empty() || number.find_first_not_of(L"0123456789") != std::wstring::npos) return {};
  return {frameLine.substr(open + 2, at - open - 2), std::stoi(number)};
}

bool IsCallStackSource(const SourcePiece& source) {
  return source.file.ends_with(L"\\CallStack.cpp") || source.file.ends_with(L"/CallStack.cpp") ||
         source.file == L"CallStack.cpp";
}

// Captures through the export of a loaded Ambrel.dll; this function is the
// first frame of the host program.
__declspec(noinline) std::vector<std::wstring> CaptureThrough(const LibraryCopy& library) {
  const auto getCallStack = library.As<GetCallStackFn>(kGetCallStackExport);
  if (getCallStack == nullptr) return {};
  std::wstring text;
  if (!getCallStack(text)) return {};
  std::printf("%s", test::Narrow(text).c_str());
  ExpectWellFormed(text);
  return Lines(text);
}

// The volatile result keeps the call from becoming a tail jump, so this
// function keeps a frame of its own.
__declspec(noinline) bool CaptureFromANamedTestFunction(std::wstring& text) {
  volatile bool captured = OSxMisc::GetCallStack(text);
  return captured;
}

TEST(CallStack, FirstLineIsTheCaptureRoutineAndTheCallerFollows) {
  std::wstring text;
  ASSERT_TRUE(CaptureFromANamedTestFunction(text));
  ExpectWellFormed(text);
  const auto lines = Lines(text);
  std::printf("%s", test::Narrow(text).c_str());
  // The objects are linked into this program, so the capture routine is in its module.
  ASSERT_GE(lines.size(), 3u);
  EXPECT_TRUE(IsModule(lines[0], L"test_callstack")) << test::Narrow(lines[0]);
  EXPECT_TRUE(NamesCaptureRoutine(lines[0])) << test::Narrow(lines[0]);
  // No frame is skipped and none is added: the caller, then its caller.
  EXPECT_THAT(test::Narrow(lines[1]), HasSubstr("CaptureFromANamedTestFunction "));
  EXPECT_THAT(test::Narrow(lines[2]),
              HasSubstr("CallStack_FirstLineIsTheCaptureRoutineAndTheCallerFollows_Test::TestBody"));
  // Wine's dbghelp names the functions of clang's DWARF but answers no source
  // line for them ("[NULL]"); the frames of Wine's own DLLs do carry lines, so
  // the "[file @ line]" form is checked on those.
  bool sourceLineSeen = false;
  for (const std::wstring& line : lines) {
    const size_t open = line.find(L" [");
    const size_t at = line.find(L" @ ", open == std::wstring::npos ? 0 : open);
    sourceLineSeen |= open != std::wstring::npos && at != std::wstring::npos && line.ends_with(L"]\t") &&
                      std::iswdigit(line[line.size() - 3]);
  }
  EXPECT_TRUE(sourceLineSeen);
}

TEST(CallStack, ExportOfAmbrelDllPutsItsOwnFrameFirst) {
  // A copy in a folder of its own with its PDB beside it: the DLL names the
  // PDB by file name only, and the library's folder is on the search path.
  // Without a PDB (GCC build) Wine's Debug Help names the frames from the
  // DLL's own DWARF.
  LibraryCopy library(L"", SymbolCompanions());
  const auto lines = CaptureThrough(library);
  ASSERT_GE(lines.size(), 3u);
  // One frame of the library, the export itself; then the host's caller.
  EXPECT_TRUE(IsModule(lines[0], L"Ambrel")) << test::Narrow(lines[0]);
  EXPECT_TRUE(NamesCaptureRoutine(lines[0])) << test::Narrow(lines[0]);
  EXPECT_TRUE(IsModule(lines[1], L"test_callstack")) << test::Narrow(lines[1]);
  EXPECT_THAT(test::Narrow(lines[1]), HasSubstr("CaptureThrough "));
  EXPECT_THAT(test::Narrow(lines[2]), HasSubstr("ExportOfAmbrelDllPutsItsOwnFrameFirst_Test::TestBody"));
}

TEST(CallStack, AmbrelFramesCarryFileAndLineFromThePdb) {
  if (!kDllHasPdb) GTEST_SKIP() << kNoPdbReason;
  const auto [firstLine, lastLine] = CaptureLinesInSource();
  ASSERT_GT(firstLine, 0) << "no capture found in " << AMBREL_CALLSTACK_SOURCE;
  LibraryCopy library(L"", {L"Ambrel.pdb"});
  const auto lines = CaptureThrough(library);
  ASSERT_FALSE(lines.empty());
  // The first frame is the capture in the export, named from the PDB.
  const SourcePiece first = SourceOf(lines.front());
  EXPECT_TRUE(IsCallStackSource(first)) << test::Narrow(lines.front());
  EXPECT_GE(first.line, firstLine) << test::Narrow(lines.front());
  EXPECT_LE(first.line, lastLine) << test::Narrow(lines.front());
  // It is the library's only frame.
  ASSERT_GE(lines.size(), 2u);
  EXPECT_FALSE(IsModule(lines[1], L"Ambrel")) << test::Narrow(lines[1]);
}

TEST(CallStack, TextAlreadyInTheStringIsReplaced) {
  std::wstring text = L"earlier text that must go\n";
  ASSERT_TRUE(OSxMisc::GetCallStack(text));
  EXPECT_EQ(text.find(L"earlier text that must go"), std::wstring::npos);
  EXPECT_TRUE(NamesCaptureRoutine(Lines(text).front()));
}

TEST(CallStack, EachCallSetsUpAndTearsDownAndTwoCallsAgree) {
  ASSERT_FALSE(DbghelpLoaded()) << "dbghelp.dll was loaded before the test";
  std::wstring texts[2];
  for (std::wstring& text : texts) {
    ASSERT_TRUE(OSxMisc::GetCallStack(text));
    // Torn down: the Debug Help library is unloaded again after each call.
    EXPECT_FALSE(DbghelpLoaded());
  }
  // Same call site, same frames.
  EXPECT_EQ(texts[0], texts[1]);
}

TEST(CallStack, CallsFromDifferentDepthsShareTheirOuterFrames) {
  std::wstring direct;
  std::wstring nested;
  ASSERT_TRUE(OSxMisc::GetCallStack(direct));
  ASSERT_TRUE(CaptureFromANamedTestFunction(nested));
  const auto directLines = Lines(direct);
  const auto nestedLines = Lines(nested);
  // One more frame (the helper) on the nested stack; the frames outside this
  // test's body are the same.
  ASSERT_EQ(nestedLines.size(), directLines.size() + 1);
  for (size_t i = 1; i <= 3; ++i) EXPECT_EQ(nestedLines[nestedLines.size() - i], directLines[directLines.size() - i]);
}

TEST(CallStack, WithoutThePdbEachLineStillNamesItsModule) {
  // The same DLL in a folder of its own without its PDB: it carries no other
  // debug information and no symbol table, so Debug Help can name nothing of
  // the library, yet every frame still gets its line.
  if (!kDllHasPdb) GTEST_SKIP() << kNoPdbReason;
  std::vector<std::wstring> named;
  {
    LibraryCopy withPdb(L"", {L"Ambrel.pdb"});
    named = CaptureThrough(withPdb);
  }
  LibraryCopy library;
  ASSERT_FALSE(std::filesystem::exists(std::filesystem::path(library.directory()) / L"Ambrel.pdb"));
  const auto lines = CaptureThrough(library);
  ASSERT_FALSE(lines.empty());
  ASSERT_TRUE(IsModule(lines.front(), L"Ambrel")) << test::Narrow(lines.front());
  size_t libraryFrames = 0;
  for (const std::wstring& line : lines) {
    if (!IsModule(line, L"Ambrel")) break;
    SCOPED_TRACE(test::Narrow(line));
    EXPECT_TRUE(line.ends_with(L"! _NA_\t[NULL]\t"));
    ++libraryFrames;
  }
  // One line per frame, named or not: the same walk as with the PDB.
  EXPECT_EQ(lines.size(), named.size());
  size_t namedLibraryFrames = 0;
  while (namedLibraryFrames < named.size() && IsModule(named[namedLibraryFrames], L"Ambrel")) ++namedLibraryFrames;
  EXPECT_EQ(libraryFrames, namedLibraryFrames);
}

// ---- a host's own Debug Help session ----

// The host's side of Debug Help: dbghelp.dll loaded by the host itself (the
// library's bare-name load then finds the same module) and the three calls a
// crash reporter makes.
class HostDebugHelpSession : public ::testing::Test {
 protected:
  using SymInitializeWFn = BOOL(WINAPI*)(HANDLE, PCWSTR, BOOL);
  using SymCleanupFn = BOOL(WINAPI*)(HANDLE);
  using SymFromAddrWFn = BOOL(WINAPI*)(HANDLE, DWORD64, DWORD64*, SYMBOL_INFOW*);

  void SetUp() override {
    ASSERT_NE(dbghelp, nullptr);
    symInitialize = reinterpret_cast<SymInitializeWFn>(::GetProcAddress(dbghelp, "SymInitializeW"));
    symCleanup = reinterpret_cast<SymCleanupFn>(::GetProcAddress(dbghelp, "SymCleanup"));
    symFromAddr = reinterpret_cast<SymFromAddrWFn>(::GetProcAddress(dbghelp, "SymFromAddrW"));
    ASSERT_TRUE(symInitialize && symCleanup && symFromAddr);
  }
  void TearDown() override {
    if (dbghelp != nullptr) ::FreeLibrary(dbghelp);
  }

  // Names an exported function of kernel32 in the session of process; the
  // error code of the failure otherwise.
  DWORD NameKernelFunction(HANDLE process) {
    const auto address =
        reinterpret_cast<DWORD64>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), "GetTickCount"));
    alignas(SYMBOL_INFOW) unsigned char buffer[sizeof(SYMBOL_INFOW) + 2 * 2000] = {};
    auto* symbol = reinterpret_cast<SYMBOL_INFOW*>(buffer);
    symbol->SizeOfStruct = sizeof(SYMBOL_INFOW);
    symbol->MaxNameLen = 2000;
    DWORD64 displacement = 0;
    if (!symFromAddr(process, address, &displacement, symbol)) return ::GetLastError();
    EXPECT_THAT(test::Narrow(symbol->Name), HasSubstr("GetTickCount"));
    return ERROR_SUCCESS;
  }

  HMODULE dbghelp = ::LoadLibraryW(L"dbghelp.dll");
  SymInitializeWFn symInitialize = nullptr;
  SymCleanupFn symCleanup = nullptr;
  SymFromAddrWFn symFromAddr = nullptr;
};

// Each capture ends with SymCleanup(GetCurrentProcess()): a session the host
// opened under that same handle is torn down with it, and the host's next
// lookup fails with ERROR_INVALID_HANDLE.
// The library is loaded before the host's session starts, as a host's
// imported Ambrel.dll is: a session that predates the library's module does
// not know it, and the capture's walk then fails at its first frame.
TEST_F(HostDebugHelpSession, UnderTheProcessHandleIsGoneAfterTheCall) {
  LibraryCopy library;
  ASSERT_TRUE(symInitialize(::GetCurrentProcess(), nullptr, TRUE));
  ASSERT_EQ(NameKernelFunction(::GetCurrentProcess()), static_cast<DWORD>(ERROR_SUCCESS));
  ASSERT_FALSE(CaptureThrough(library).empty());
  EXPECT_EQ(NameKernelFunction(::GetCurrentProcess()), static_cast<DWORD>(ERROR_INVALID_HANDLE));
  // Initialised again after the call, the host's session works as before.
  ASSERT_TRUE(symInitialize(::GetCurrentProcess(), nullptr, TRUE));
  EXPECT_EQ(NameKernelFunction(::GetCurrentProcess()), static_cast<DWORD>(ERROR_SUCCESS));
  symCleanup(::GetCurrentProcess());
}

// A session under a handle of the host's own (Microsoft's advice for
// SymInitialize) is not the library's to clean up: it survives the call.
TEST_F(HostDebugHelpSession, UnderAHandleOfItsOwnSurvivesTheCall) {
  LibraryCopy library;
  HANDLE own = nullptr;
  ASSERT_TRUE(::DuplicateHandle(::GetCurrentProcess(), ::GetCurrentProcess(), ::GetCurrentProcess(), &own, 0, FALSE,
                                DUPLICATE_SAME_ACCESS));
  ASSERT_TRUE(symInitialize(own, nullptr, TRUE));
  ASSERT_FALSE(CaptureThrough(library).empty());
  EXPECT_EQ(NameKernelFunction(own), static_cast<DWORD>(ERROR_SUCCESS));
  symCleanup(own);
  ::CloseHandle(own);
}

// ---- without the Debug Help library ----

// CTest runs this program a second time with WINEDLLOVERRIDES=dbghelp=d (Wine
// reads it only at process start) and the flag below set.
TEST(CallStackWithoutDbghelp, FailsAndLeavesTheStringAlone) {
  if (!EnvGuard::Get(kDbghelpDisabledFlag)) GTEST_SKIP() << "runs in its own process with dbghelp.dll disabled";
  ASSERT_EQ(::LoadLibraryW(L"dbghelp.dll"), nullptr) << "dbghelp.dll is still loadable";
  std::wstring text = L"kept as it was";
  EXPECT_FALSE(OSxMisc::GetCallStack(text));
  EXPECT_EQ(text, L"kept as it was");

  LibraryCopy library;
  const auto getCallStack = library.As<GetCallStackFn>(kGetCallStackExport);
  ASSERT_NE(getCallStack, nullptr);
  std::wstring exported = L"also kept";
  EXPECT_FALSE(getCallStack(exported));
  EXPECT_EQ(exported, L"also kept");
}

}  // namespace
}  // namespace ambrel
