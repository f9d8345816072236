// What MSVC's static runtime libraries (vcruntime.lib, msvcrt.lib and the
// STL's import library) put into every module, for the test build only:
// the DLL entry point (ProgramEntry.cpp has the program's) that runs the C++ initialisers and a per-module exit
// list, the stack-buffer cookie, control-flow-guard pointers and the load
// configuration that names them, the TLS directory, thread-safe statics,
// operator new and delete, type_info's vtable and name cache, and the STL's
// facet registration. Everything else comes from Wine's ucrtbase,
// vcruntime140 and msvcp140. Compiled with /GS- /guard:cf- /Zc:threadSafeInit-,
// since it provides what those options call.
#include <windows.h>

#include <corecrt_startup.h>
#include <intrin.h>
#include <stdlib.h>

#include <new>
#include <xlocale>

extern "C" {

// ---- initialiser sections, walked in name order between the markers
typedef void(__cdecl* AmbrelInit)(void);
typedef int(__cdecl* AmbrelInitWithResult)(void);
_ACRTIMP void __cdecl _initterm(AmbrelInit* first, AmbrelInit* last);
_ACRTIMP int __cdecl _initterm_e(AmbrelInitWithResult* first, AmbrelInitWithResult* last);

#pragma section(".CRT$XIA", long, read)
#pragma section(".CRT$XIZ", long, read)
#pragma section(".CRT$XCA", long, read)
#pragma section(".CRT$XCZ", long, read)
#pragma section(".CRT$XLA", long, read)
#pragma section(".CRT$XLZ", long, read)
__declspec(allocate(".CRT$XIA")) AmbrelInitWithResult __xi_a[] = {nullptr};
__declspec(allocate(".CRT$XIZ")) AmbrelInitWithResult __xi_z[] = {nullptr};
__declspec(allocate(".CRT$XCA")) AmbrelInit __xc_a[] = {nullptr};
__declspec(allocate(".CRT$XCZ")) AmbrelInit __xc_z[] = {nullptr};
__declspec(allocate(".CRT$XLA")) PIMAGE_TLS_CALLBACK __xl_a = nullptr;
__declspec(allocate(".CRT$XLZ")) PIMAGE_TLS_CALLBACK __xl_z = nullptr;
#pragma comment(linker, "/merge:.CRT=.rdata")

// ---- TLS directory: the compiler places thread_local data in .tls$
ULONG _tls_index = 0;
#pragma data_seg(".tls")
char _tls_start = 0;
#pragma data_seg(".tls$ZZZ")
char _tls_end = 0;
#pragma data_seg()
extern const IMAGE_TLS_DIRECTORY64 _tls_used = {reinterpret_cast<ULONGLONG>(&_tls_start),
                                                reinterpret_cast<ULONGLONG>(&_tls_end),
                                                reinterpret_cast<ULONGLONG>(&_tls_index),
                                                reinterpret_cast<ULONGLONG>(&__xl_a + 1),
                                                0,
                                                0};

// The compiler references it whenever floating point is used.
int _fltused = 0x9875;
// The instruction-set level the STL may use: the x64 baseline only, so no
// code path depends on the processor Wine runs on.
int __isa_available = 0;

// ---- stack-buffer cookie (/GS)
// The file holds Microsoft's default; the Windows loader replaces it with a
// random value of its own when the load config names the cookie and it still
// holds the default ("/GS (Buffer Security Check)", "__security_init_cookie",
// Microsoft Learn). A seeded cookie is kept: seeding again would throw the
// loader's entropy away. Otherwise this seeds it, as Microsoft's runtime
// does, from the time, the ids, the performance counter and a stack address
// (randomised by ASLR), top 16 bits clear so that a string overrun meets a
// zero byte before the return address.
constexpr unsigned __int64 kDefaultSecurityCookie = 0x00002B992DDFA232ull;
unsigned __int64 __security_cookie = kDefaultSecurityCookie;

void __cdecl __security_init_cookie(void) {
  if (__security_cookie != kDefaultSecurityCookie) return;
  LARGE_INTEGER counter{};
  ::QueryPerformanceCounter(&counter);
  FILETIME now{};
  ::GetSystemTimeAsFileTime(&now);
  unsigned __int64 cookie = static_cast<unsigned __int64>(now.dwHighDateTime) << 32 | now.dwLowDateTime;
  cookie ^= ::GetCurrentThreadId();
  cookie ^= ::GetCurrentProcessId();
  cookie ^= static_cast<unsigned __int64>(counter.QuadPart) << 32 ^ static_cast<unsigned __int64>(counter.QuadPart);
  cookie ^= reinterpret_cast<unsigned __int64>(&cookie);
  cookie &= 0x0000FFFFFFFFFFFFull;
  if (cookie == kDefaultSecurityCookie) ++cookie;
  if (cookie == 0) cookie = kDefaultSecurityCookie + 1;
  __security_cookie = cookie;
}

void __cdecl __security_check_cookie(unsigned __int64 cookie) {
  if (cookie != __security_cookie) __report_gsfailure(cookie);
}

// ---- control-flow guard (/guard:cf): the loader of a CFG-enforcing Windows
// replaces both pointers; until then the check does nothing and the dispatch
// jumps to the target, which the caller passes in rax. They live in a
// read-only section of their own, as in Microsoft's runtime, so that no stray
// write can switch the guard off; the loader unprotects the page while it
// writes them (load config GuardCFCheckFunctionPointer and
// GuardCFDispatchFunctionPointer: "PE Format", "Control Flow Guard",
// Microsoft Learn).
static void __cdecl AmbrelGuardCheck(void*) {}
void AmbrelGuardDispatch(void);
#pragma section(".00cfg", read)
extern void* const __guard_check_icall_fptr;
extern void* const __guard_dispatch_icall_fptr;
__declspec(allocate(".00cfg")) void* const __guard_check_icall_fptr = reinterpret_cast<void*>(&AmbrelGuardCheck);
__declspec(allocate(".00cfg")) void* const __guard_dispatch_icall_fptr = reinterpret_cast<void*>(&AmbrelGuardDispatch);
}  // extern "C"

// The dispatch stub, and the load configuration: its GuardFlags is a 32-bit
// field that takes the linker's absolute symbol __guard_flags, which C cannot
// express. Layout of IMAGE_LOAD_CONFIG_DIRECTORY64 up to the long-jump table.
__asm__(
    ".text\n"
    ".globl AmbrelGuardDispatch\n"
    "AmbrelGuardDispatch:\n"
    "  jmp *%rax\n"
    ".section .rdata,\"dr\"\n"
    ".globl _load_config_used\n"
    ".p2align 3\n"
    "_load_config_used:\n"
    "  .long 192\n"               // Size
    "  .long 0, 0, 0, 0, 0\n"     // TimeDateStamp, versions, global flags, timeout
    "  .quad 0, 0, 0, 0, 0, 0\n"  // de-commit thresholds .. ProcessAffinityMask
    "  .long 0\n"                 // ProcessHeapFlags
    "  .short 0, 0\n"             // CSDVersion, DependentLoadFlags
    "  .quad 0\n"                 // EditList
    "  .quad __security_cookie\n"
    "  .quad 0, 0\n"  // SEHandlerTable, SEHandlerCount
    "  .quad __guard_check_icall_fptr\n"
    "  .quad __guard_dispatch_icall_fptr\n"
    "  .quad __guard_fids_table\n"
    "  .quad __guard_fids_count\n"
    "  .long __guard_flags\n"
    "  .short 0, 0\n"  // CodeIntegrity
    "  .long 0, 0\n"
    "  .quad __guard_iat_table\n"
    "  .quad __guard_iat_count\n"
    "  .quad __guard_longjmp_table\n"
    "  .quad __guard_longjmp_count\n"
    ".text\n");

extern "C" {

// ---- thread-safe statics: the compiler's guard protocol (0 not yet
// initialised, -1 being initialised, else the epoch that finished it)
int _Init_global_epoch = INT_MIN;
__declspec(thread) int _Init_thread_epoch = INT_MIN;
static SRWLOCK g_initLock = SRWLOCK_INIT;
static CONDITION_VARIABLE g_initDone = CONDITION_VARIABLE_INIT;

void __cdecl _Init_thread_header(int* const guard) {
  ::AcquireSRWLockExclusive(&g_initLock);
  if (*guard == 0) {
    *guard = -1;
  } else {
    while (*guard == -1) {
      ::SleepConditionVariableSRW(&g_initDone, &g_initLock, INFINITE, 0);
      if (*guard == 0) {  // the other initialiser threw: this thread tries
        *guard = -1;
        ::ReleaseSRWLockExclusive(&g_initLock);
        return;
      }
    }
    _Init_thread_epoch = _Init_global_epoch;
  }
  ::ReleaseSRWLockExclusive(&g_initLock);
}

void __cdecl _Init_thread_footer(int* const guard) {
  ::AcquireSRWLockExclusive(&g_initLock);
  ++_Init_global_epoch;
  *guard = _Init_global_epoch;
  _Init_thread_epoch = _Init_global_epoch;
  ::ReleaseSRWLockExclusive(&g_initLock);
  ::WakeAllConditionVariable(&g_initDone);
}

void __cdecl _Init_thread_abort(int* const guard) {
  ::AcquireSRWLockExclusive(&g_initLock);
  *guard = 0;
  ::ReleaseSRWLockExclusive(&g_initLock);
  ::WakeAllConditionVariable(&g_initDone);
}

// ---- this module's exit list (atexit and _onexit, and the destructors of
// its statics), run when the DLL detaches or, for a program, by exit()
static _onexit_table_t g_exitList;

_onexit_t __cdecl _onexit(_onexit_t function) {
  return _register_onexit_function(&g_exitList, function) == 0 ? function : nullptr;
}
int __cdecl atexit(void(__cdecl* function)(void)) {
  return _onexit(reinterpret_cast<_onexit_t>(function)) != nullptr ? 0 : -1;
}

// type_info's cached undecorated names, kept by vcruntime140 for this module
// in an interlocked list whose header must be 16-aligned.
__type_info_node __type_info_root_node = {nullptr, nullptr};
static_assert(alignof(decltype(__type_info_root_node)) == 16, "__type_info_root_node is an SLIST_HEADER");
_VCRTIMP void __cdecl __std_type_info_destroy_list(__type_info_node*);

bool AmbrelInitializeModule() {
  __security_init_cookie();
  _initialize_onexit_table(&g_exitList);
  if (_initterm_e(__xi_a, __xi_z) != 0) return false;
  _initterm(__xc_a, __xc_z);
  return true;
}

void AmbrelTerminateModule() {
  _execute_onexit_table(&g_exitList);
  __std_type_info_destroy_list(&__type_info_root_node);
}

// What a program's entry (ProgramEntry.cpp, WideProgramEntry.cpp) does once
// the C runtime has its arguments: the module's initialisers, and its exit
// list run by exit().
static void __cdecl RunProgramExitList(void) { AmbrelTerminateModule(); }

void AmbrelStartProgram() {
  _set_app_type(_crt_console_app);
  if (!AmbrelInitializeModule()) ::ExitProcess(255);
  _crt_atexit(&RunProgramExitList);
}

BOOL WINAPI DllMain(HINSTANCE, DWORD, LPVOID);

// Whether the module finished its attach. The loader follows a failed attach
// with DLL_PROCESS_DETACH ("DllMain entry point", Microsoft Learn); a module
// that did not attach then runs neither DllMain nor its exit list, as
// Microsoft's runtime refuses that detach through its __proc_attached count.
// A DllMain that fails its attach gets its detach here at once, then the
// module's exit list runs, in Microsoft's order.
static bool g_processAttached = false;

BOOL WINAPI _DllMainCRTStartup(HINSTANCE instance, DWORD reason, LPVOID reserved) {
  if (reason == DLL_PROCESS_ATTACH) {
    if (!AmbrelInitializeModule()) return FALSE;
    if (!DllMain(instance, reason, reserved)) {
      DllMain(instance, DLL_PROCESS_DETACH, reserved);
      AmbrelTerminateModule();
      return FALSE;
    }
    g_processAttached = true;
    return TRUE;
  }
  if (reason == DLL_PROCESS_DETACH && !g_processAttached) return FALSE;
  const BOOL result = DllMain(instance, reason, reserved);
  if (reason == DLL_PROCESS_DETACH) {
    g_processAttached = false;
    AmbrelTerminateModule();
  }
  return result;
}

}  // extern "C"

// ---- operator new and delete over the C runtime's heap
namespace std {
const nothrow_t nothrow{};
}

extern "C" _ACRTIMP int __cdecl _callnewh(size_t);

void* __cdecl operator new(size_t size) {
  for (;;) {
    if (void* const block = malloc(size != 0 ? size : 1)) return block;
    if (_callnewh(size) == 0) throw std::bad_alloc();
  }
}
void* __cdecl operator new(size_t size, std::align_val_t alignment) {
  for (;;) {
    if (void* const block = _aligned_malloc(size != 0 ? size : 1, static_cast<size_t>(alignment))) return block;
    if (_callnewh(size) == 0) throw std::bad_alloc();
  }
}
void* __cdecl operator new[](size_t size) { return ::operator new(size); }
void* __cdecl operator new[](size_t size, std::align_val_t alignment) { return ::operator new(size, alignment); }
void* __cdecl operator new(size_t size, const std::nothrow_t&) noexcept {
  try {
    return ::operator new(size);
  } catch (...) {
    return nullptr;
  }
}
void* __cdecl operator new[](size_t size, const std::nothrow_t&) noexcept { return ::operator new(size, std::nothrow); }
void* __cdecl operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  try {
    return ::operator new(size, alignment);
  } catch (...) {
    return nullptr;
  }
}
void* __cdecl operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept {
  return ::operator new(size, alignment, std::nothrow);
}
void __cdecl operator delete(void* block) noexcept { free(block); }
void __cdecl operator delete[](void* block) noexcept { free(block); }
void __cdecl operator delete(void* block, size_t) noexcept { free(block); }
void __cdecl operator delete[](void* block, size_t) noexcept { free(block); }
void __cdecl operator delete(void* block, const std::nothrow_t&) noexcept { free(block); }
void __cdecl operator delete[](void* block, const std::nothrow_t&) noexcept { free(block); }
void __cdecl operator delete(void* block, std::align_val_t) noexcept { _aligned_free(block); }
void __cdecl operator delete[](void* block, std::align_val_t) noexcept { _aligned_free(block); }
void __cdecl operator delete(void* block, size_t, std::align_val_t) noexcept { _aligned_free(block); }
void __cdecl operator delete[](void* block, size_t, std::align_val_t) noexcept { _aligned_free(block); }
void __cdecl operator delete(void* block, std::align_val_t, const std::nothrow_t&) noexcept { _aligned_free(block); }
void __cdecl operator delete[](void* block, std::align_val_t, const std::nothrow_t&) noexcept { _aligned_free(block); }

// ---- type_info: its destructor and vtable, which Wine's vcruntime140 does
// not export. Type descriptors never die, so the destructor does nothing.
type_info::~type_info() noexcept {}
extern "C" void* __cdecl AmbrelTypeInfoDeletingDestructor(void* object, unsigned) { return object; }
__asm__(
    ".section .rdata,\"dr\"\n"
    ".p2align 3\n"
    "  .quad 0\n"  // no complete-object locator
    ".globl \"??_7type_info@@6B@\"\n"
    "\"??_7type_info@@6B@\":\n"
    "  .quad AmbrelTypeInfoDeletingDestructor\n"
    ".text\n");

// ---- the STL's facet registration: facets the runtime made for this
// module, released when it exits
namespace {
struct RegisteredFacet {
  std::_Facet_base* facet;
  RegisteredFacet* next;
};
RegisteredFacet* g_facets = nullptr;

void __cdecl ReleaseFacets() {
  while (RegisteredFacet* const entry = g_facets) {
    g_facets = entry->next;
    delete entry->facet->_Decref();
    delete entry;
  }
}
}  // namespace

void __cdecl std::_Facet_Register(std::_Facet_base* facet) {
  if (g_facets == nullptr) atexit(&ReleaseFacets);
  g_facets = new RegisteredFacet{facet, g_facets};
}
