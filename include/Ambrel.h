// Ambrel: Windows support library of the Kalvex host.
//
// The one header a host includes. Every export runs on the calling thread; the
// library starts no threads and takes no locks of its own, so each function is
// meant to be called from one thread at a time (in practice the host's start-up
// thread) unless its comment says otherwise.
//
// The library and its host share one C++ runtime (mingw-w64: libstdc++-6.dll,
// libgcc_s_seh-1.dll and libwinpthread-1.dll beside the executable; MSVC: /MD),
// since standard types cross this interface. Exceptions are not caught at the
// boundary: any export that builds a string may throw std::bad_alloc, or
// std::length_error for one beyond max_size(); each comment names the others.
// std::filesystem::filesystem_error carries the Windows error code and text,
// and its what() names the operation ("exists", "status" or
// "temp_directory_path") and the path.
//
// Exception model of the host: any that lets C++ exceptions pass through
// calls, such as MSVC's default /EHsc. Every export that can throw has C++
// linkage, since /EHsc takes extern "C" functions never to throw and would
// drop the host's handlers around them. InitializeQel, GetSharedDllPath and
// BackupInitialEnvironmentBlock are also exported under their plain names
// for GetProcAddress.
#pragma once

// The exports report failures as C++ exceptions: a host compiled without them
// (/EHs-, -fno-exceptions) could neither catch them nor unwind through them.
#if !defined(__cpp_exceptions) && !defined(_CPPUNWIND)
#error \
    "Ambrel.h: the host is compiled without C++ exceptions; Ambrel.dll's exports throw them: build it with /EHsc (MSVC) or without -fno-exceptions"
#endif

#include <windows.h>
// mingw-w64's <delayimp.h> has no include guard: a host that included it
// before this header must not get it twice (with mingw-w64, include it before
// Ambrel.h or not at all; Visual Studio's may come in any order).
#if !defined(_DELAY_IMP_VER)
#include <delayimp.h>
#endif

#include <cstddef>
#include <string>
#include <string_view>

// The host's C++ runtime must be able to share objects with the library's:
// a std::wstring the library returns is freed by the host, and their layouts
// and heaps must agree. A host whose runtime cannot does not build.
#if defined(_LIBCPP_VERSION)
#error "Ambrel.h: the host uses libc++; Ambrel.dll is built with Microsoft's STL (MSVC) or GCC's libstdc++ (mingw-w64)"
#elif defined(_MSC_VER) && !defined(__GLIBCXX__)
#if !defined(_DLL)
#error \
    "Ambrel.h: build the host with the shared C++ runtime (/MD, or /MDd in Debug): Ambrel.dll shares its heap and its standard types with the host"
#endif
// Which of the package's two DLLs the host links, by the iterator debug level
// it was built with: 0, Ambrel.dll (/MD); 2, Ambreld.dll (/MDd, _DEBUG). The
// CMake package states it per configuration; without it, the host's own
// runtime decides (a Debug host links Ambreld.lib, any other Ambrel.lib).
#if !defined(AMBREL_ITERATOR_DEBUG_LEVEL)
#if defined(_DEBUG)
#define AMBREL_ITERATOR_DEBUG_LEVEL 2
#else
#define AMBREL_ITERATOR_DEBUG_LEVEL 0
#endif
#endif
#if AMBREL_ITERATOR_DEBUG_LEVEL == 0 && defined(_DEBUG)
#error \
    "Ambrel.h: the host builds with the debug runtime (/MDd, _DEBUG) but links the release Ambrel.dll, whose heap and std::wstring differ: link Ambreld.lib (the package's Debug configuration), or build this configuration with /MD"
#elif AMBREL_ITERATOR_DEBUG_LEVEL == 2 && !defined(_DEBUG)
#error \
    "Ambrel.h: the host builds with the release runtime (/MD) but links the debug Ambreld.dll, whose heap and std::wstring differ: link Ambrel.lib (the package's Release configurations), or build this configuration with /MDd"
#elif _ITERATOR_DEBUG_LEVEL != AMBREL_ITERATOR_DEBUG_LEVEL
#error \
    "Ambrel.h: the host's _ITERATOR_DEBUG_LEVEL differs from the Ambrel DLL it links (Ambrel.dll: 0, Ambreld.dll: 2), so std::wstring's layout differs: leave _ITERATOR_DEBUG_LEVEL at the runtime's default"
#endif
#elif defined(__GLIBCXX__)
#if _GLIBCXX_RELEASE != 12
#error \
    "Ambrel.h: the host uses another libstdc++ release than Ambrel.dll's (GCC 12's libstdc++-6.dll, shipped beside it)"
#endif
#if !_GLIBCXX_USE_CXX11_ABI
#error "Ambrel.h: the host uses libstdc++'s old string ABI (_GLIBCXX_USE_CXX11_ABI=0); Ambrel.dll uses the C++11 one"
#endif
#endif

#if defined(AMBREL_BUILDING)
#define AMBREL_API __declspec(dllexport)
#elif defined(AMBREL_LINKED_IN)
// The library's own test programs link its objects instead of the DLL.
#define AMBREL_API
#else
#define AMBREL_API __declspec(dllimport)
#endif

// ---- Shared-components bootstrap ----

// Prepares the process for the shared components of release "2026": the
// installer locks their folder while it is put in front of PATH, recorded, and
// QEL_INITIALIZE_BYPASSED=1 is set for child processes. True when the folder is
// on PATH or the work is deliberately skipped (development build, done before,
// inherited marker); false when any step failed (the process is left as it
// was). Throws std::filesystem::filesystem_error: "status" when testing the
// folder fails unexpectedly, "exists" when testing for the installer's
// self-update lock file does, and "temp_directory_path" when the program-data
// folder cannot be obtained and the temporary directory (where the lock file
// is then looked for) cannot either; and whatever the session sink throws.
// Call once, early, on the start-up thread.
//
// Hazard, hardened DLL search: the shared components' DLLs are found through
// PATH. A host that calls SetDefaultDllDirectories(LOAD_LIBRARY_SEARCH_DEFAULT_DIRS)
// (common anti-planting practice) never searches PATH, so after a successful
// InitializeQel those DLLs still do not load, and DelayLoadHook cannot find
// them either: its lookup answers "" once the process is marked. Such a host
// adds the folder to its search itself, after InitializeQel returned true and
// before the first call into those DLLs: AddDllDirectory(OSxFolder::GetSharedDllPath())
// when that is not "" (the default directories include the added ones). A
// child process inherits the marker but records no folder: its parent hands
// the folder to it (for example on its command line).
AMBREL_API bool InitializeQel();

// The shared-components folder, looked up once per library through a
// throw-away installer session (the lock is dropped at once); "" when there is
// none, also when first called after a successful InitializeQel. Never null;
// the pointer stays valid while the library is loaded. Throws what
// InitializeQel throws (filesystem_error "status", "exists" or
// "temp_directory_path", the session sink's exceptions); a first call that
// throws is retried by the next.
// Concurrent first calls wait for one lookup; not alongside InitializeQel on
// another thread, which drives the same installer state.
AMBREL_API const wchar_t* GetSharedDllPath();

namespace QelLoadHelper {

// True when the registry entry of shared-components release "2026" names an
// existing install folder that holds an existing version sub-folder. Reads the
// registry and file system afresh on each call (keeps no state; any thread).
// Throws std::filesystem::filesystem_error ("exists") on an unexpected
// file-system error.
AMBREL_API bool IsQELInstalled();

// True when this library's module file lies on drive R: (a development build).
// Keeps no state; any thread.
AMBREL_API bool IsDevelopment();

// Delay-load failure hook: assign it to __pfnDliFailureHook2. For
// dliFailLoadLib it loads the DLL from this library's folder, else from the
// shared-components folder (registered as a DLL directory for the call only)
// and returns the module; null otherwise, and for every other notification.
// PATH and the current directory are never searched. Runs on the thread whose
// delay load failed; does not read the folder InitializeQel recorded. The
// first failure that needs the shared folder looks it up as GetSharedDllPath
// does, and throws what that lookup throws (filesystem_error "status", "exists"
// or "temp_directory_path", the session sink's exceptions); std::system_error ("file name")
// when the DLL's name does not convert in the file APIs' code page.
//
// Hazard, threads: the hook runs on whichever thread's delay load failed, and
// two such threads at once race on the hook's folder and on the process-wide
// installer SDK state its lookup drives. Make the first call into each
// delay-loaded DLL on the start-up thread, after InitializeQel; later calls
// from any thread then find the DLL loaded and never reach the hook.
// Hazard, hardened DLL search: see InitializeQel.
AMBREL_API FARPROC WINAPI DelayLoadHook(unsigned dliNotify, PDelayLoadInfo pdli);

// Calls unloadOne (normally __FUnloadDelayLoadedDLL2 of the calling image) once
// per ';'-separated name of moduleList, in order, empty names included. Does
// nothing for an empty list or a null callback. Call at shutdown, from one thread.
AMBREL_API void UnloadDelayLoadedModules(std::string_view moduleList, BOOL(WINAPI* unloadOne)(LPCSTR));

}  // namespace QelLoadHelper

// ---- Session messages ----

// Receives the shared-components session's messages: a level ("INFO", "WARN",
// "ERROR" or "FATAL") and the text. Called on the thread that runs the session
// (InitializeQel, GetSharedDllPath, the delay-load hook); an exception it
// throws leaves that export unchanged. Both strings are the host's to keep.
using QelSessionLogSink = void (*)(std::wstring level, std::wstring message);

// Installs the sink (null removes it; null is the default, and then messages
// are dropped) and returns the one it replaces. Not synchronised: set it before
// the bootstrap runs.
AMBREL_API QelSessionLogSink SetQelSessionLogSink(QelSessionLogSink sink);

// ---- Folders and shortcuts ----

class AMBREL_API OSxFolder {
 public:
  // The user's documents folder into buffer (size in characters, truncating
  // copy). True when the shell calls succeeded, also when the copy was cut.
  // Keeps no state; any thread.
  static bool GetMyDocumentsDir(wchar_t* buffer, size_t size);
  // Target path of a shortcut (.lnk) file, or "". COM must be initialised on
  // the calling thread. Throws std::length_error ("string too long") when the
  // link's GetPath fails.
  static std::wstring GetPathFromShortcut(const wchar_t* shortcutFile);
  // Points an existing shortcut at a new target and saves it. COM must be
  // initialised on the calling thread.
  static bool UpdateShortcut(const wchar_t* shortcutFile, const wchar_t* newTarget);
  // The folder recorded by a successful InitializeQel; "" until then. Never
  // null. Read it after the bootstrap, not while it runs on another thread.
  static const wchar_t* GetSharedDllPath();
  // Runs InitializeQel and returns its result; with honourEdition true a
  // KLXLITE installation returns true without doing anything. Throws what
  // InitializeQel throws (filesystem_error "status", "exists" or
  // "temp_directory_path", the session sink's exceptions), and
  // filesystem_error ("exists") when testing for Kalvex.ini fails
  // unexpectedly. Start-up thread only.
  static bool UpdateSharedDllPath(bool honourEdition);
};

// ---- Host path and environment ----

class AMBREL_API OSxUtil {
 public:
  // Puts the host executable's folder in front of PATH unless it is there;
  // true when PATH holds it afterwards. Changes the process environment: one thread.
  static bool PrependKalvexPath();
  // Takes the host's per-user App Paths "Path" text out of PATH and deletes the
  // value; true when the value was found, read and deleted. Changes PATH: one thread.
  static bool RemoveAppPathSetting();
};

// Keeps a private copy of the environment block the first time it is called;
// later calls do nothing. Throws std::bad_alloc when the copy cannot be made.
// Call first thing at start-up, from one thread.
AMBREL_API void BackupInitialEnvironmentBlock();
// That copy (name=value strings, then an extra NUL), or null before the first
// backup. Owned by the library: do not free or change it. Any thread once
// taken. Never throws, so it keeps C linkage.
extern "C" AMBREL_API const wchar_t* GetInitialEnvironmentBlock() noexcept;

// ---- Mail, locale, keys, thread names, call stack ----

class AMBREL_API OSxMisc {
 public:
  // Opens the mail program's compose dialog through Simple MAPI with the given
  // texts (each may be null). True when MAPI reported success or a cancel.
  // Blocks while the dialog is open; several threads may call it at once.
  // MAPI32.DLL is loaded by its bare name, so the application's folder is
  // searched first. Each text goes to MAPI in the ANSI code page, through a
  // buffer of 2 x its length + 1 bytes: characters outside the code page are
  // lost, and a text that needs more bytes than that (under the UTF-8 code
  // page: text of mostly three-byte characters, such as CJK) is sent as "".
  static bool SendEMail(const wchar_t* recipient, const wchar_t* subject, const wchar_t* body,
                        const wchar_t* attachment);
  // True while the C++ global locale (the host's, through the shared runtime)
  // is the classic "C" locale. Any thread.
  static bool IsEnglish();
  // True while the virtual key is down, as the calling thread's message queue
  // last saw it.
  static bool IsKeyPressed(int virtualKey);
  // Copy count 16-bit units forward, nothing else (one routine, two names); no
  // result. Any thread.
  static void Uint16ToWchar(wchar_t* destination, const unsigned short* source, size_t count);
  static void WcharToUint16(unsigned short* destination, const wchar_t* source, size_t count);
  // Replaces text with the calling thread's stack, one line per frame
  // ("module! symbol [file @ line]", tab, '\n'): first this function itself,
  // then its caller and the caller's callers. True; on failure (no
  // dbghelp.dll) false with text left as it was.
  // Loads and unloads dbghelp.dll on each call: never from two threads at once.
  // dbghelp.dll is loaded by its bare name, so the application's folder is
  // searched first.
  //
  // Hazard, the host's own Debug Help session: each call ends with
  // SymCleanup(GetCurrentProcess()), which tears down every session of the
  // process under that handle, the host's included (a crash reporter,
  // std::stacktrace, a profiler that called SymInitialize(GetCurrentProcess(),
  // ...)); the host's next SymFromAddr then fails with ERROR_INVALID_HANDLE.
  // Such a host opens its session under a handle of its own (DuplicateHandle of
  // the process, as Microsoft advises), keeps none open across the call, or
  // calls SymInitialize again after it.
  static bool GetCallStack(std::wstring& text);
};

class AMBREL_API OSxThread {
 public:
  // Names a thread for an attached debugger (0xFFFFFFFF: the calling thread);
  // no result, nothing happens without a debugger. Any thread.
  static void SetThreadName(const char* name, unsigned long threadId);
};
