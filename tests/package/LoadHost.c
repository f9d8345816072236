// A host that imports nothing but KERNEL32 and the C runtime, loads the
// Ambrel.dll beside it and checks that the load mapped exactly the DLLs the
// library imports and the DLLs those import (read from the import tables of
// the mapped images), and in particular no rsaenh.dll, not even for a moment:
// the library runs nothing at load that loads a DLL. Prints each DLL the load
// mapped, in order. Exit code 0 when the sets match.
#include <windows.h>
#include <tlhelp32.h>

#include <stdio.h>
#include <string.h>
#include <wchar.h>

enum { kMaxModules = 512 };

typedef struct {
  HMODULE handles[kMaxModules];
  wchar_t names[kMaxModules][MAX_MODULE_NAME32 + 1];
  int count;
} ModuleSet;

static int Contains(const ModuleSet* set, HMODULE module) {
  for (int i = 0; i < set->count; ++i) {
    if (set->handles[i] == module) return 1;
  }
  return 0;
}

static void Add(ModuleSet* set, HMODULE module, const wchar_t* name) {
  if (Contains(set, module) || set->count == kMaxModules) return;
  set->handles[set->count] = module;
  wcsncpy(set->names[set->count], name, MAX_MODULE_NAME32);
  set->names[set->count][MAX_MODULE_NAME32] = L'\0';
  ++set->count;
}

// The modules loaded in this process now.
static int Snapshot(ModuleSet* set) {
  set->count = 0;
  HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPMODULE, 0);
  if (snapshot == INVALID_HANDLE_VALUE) return 0;
  MODULEENTRY32W entry;
  entry.dwSize = sizeof entry;
  for (BOOL more = Module32FirstW(snapshot, &entry); more; more = Module32NextW(snapshot, &entry)) {
    Add(set, entry.hModule, entry.szModule);
  }
  CloseHandle(snapshot);
  return 1;
}

// The module and, recursively, every module its import table names, as mapped
// in memory (the loader has resolved them, so each is loaded).
static int AddWithImports(ModuleSet* set, HMODULE module, const wchar_t* name) {
  if (Contains(set, module)) return 1;
  Add(set, module, name);
  const BYTE* base = (const BYTE*)module;
  const IMAGE_DOS_HEADER* dos = (const IMAGE_DOS_HEADER*)base;
  const IMAGE_NT_HEADERS* nt = (const IMAGE_NT_HEADERS*)(base + dos->e_lfanew);
  const IMAGE_DATA_DIRECTORY* directory = &nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
  if (directory->VirtualAddress == 0) return 1;
  for (const IMAGE_IMPORT_DESCRIPTOR* import = (const IMAGE_IMPORT_DESCRIPTOR*)(base + directory->VirtualAddress);
       import->Name != 0; ++import) {
    const char* dll = (const char*)(base + import->Name);
    HMODULE imported = GetModuleHandleA(dll);
    if (imported == NULL) {
      printf("FAIL: %ls imports %s, which is not loaded\n", name, dll);
      return 0;
    }
    wchar_t wide[MAX_MODULE_NAME32 + 1];
    MultiByteToWideChar(CP_ACP, 0, dll, -1, wide, MAX_MODULE_NAME32 + 1);
    if (!AddWithImports(set, imported, wide)) return 0;
  }
  return 1;
}

// The loader's notifications (ntdll's LdrRegisterDllNotification): every DLL
// mapped while the library loads, also one loaded and freed again before
// LoadLibraryW returns, as CryptAcquireContext does with rsaenh.dll.
typedef struct {
  USHORT Length;
  USHORT MaximumLength;
  PWSTR Buffer;
} CountedString;
typedef struct {
  ULONG Flags;
  const CountedString* FullDllName;
  const CountedString* BaseDllName;
  PVOID DllBase;
  ULONG SizeOfImage;
} DllNotificationData;
typedef VOID(CALLBACK* DllNotification)(ULONG reason, const DllNotificationData* data, PVOID context);
typedef LONG(NTAPI* RegisterDllNotification)(ULONG flags, DllNotification callback, PVOID context, PVOID* cookie);
typedef LONG(NTAPI* UnregisterDllNotification)(PVOID cookie);
enum { kDllLoaded = 1, kDllUnloaded = 2 };

static ModuleSet mapped;    // every DLL mapped during the load, in order
static ModuleSet unmapped;  // every DLL unmapped during it

static VOID CALLBACK OnDllNotification(ULONG reason, const DllNotificationData* data, PVOID context) {
  (void)context;
  wchar_t name[MAX_MODULE_NAME32 + 1];
  const size_t length = data->BaseDllName->Length / sizeof(wchar_t);
  if (length > MAX_MODULE_NAME32) return;
  memcpy(name, data->BaseDllName->Buffer, length * sizeof(wchar_t));
  name[length] = L'\0';
  Add(reason == kDllLoaded ? &mapped : &unmapped, (HMODULE)data->DllBase, name);
}

static int ContainsName(const ModuleSet* set, const wchar_t* name) {
  for (int i = 0; i < set->count; ++i) {
    if (_wcsicmp(set->names[i], name) == 0) return 1;
  }
  return 0;
}

// Loads `dll` and sorts the DLLs the load mapped: into `closure` the DLL and
// its import closure, into `others` whatever else came (printed with
// `print`). Fails when the load fails or an import is not loaded.
static int LoadAndSort(const wchar_t* dll, const wchar_t* name, ModuleSet* closure, ModuleSet* others, int print) {
  static ModuleSet after;
  HMODULE ntdll = GetModuleHandleW(L"ntdll.dll");
  RegisterDllNotification registerNotification =
      (RegisterDllNotification)(void (*)(void))GetProcAddress(ntdll, "LdrRegisterDllNotification");
  UnregisterDllNotification unregisterNotification =
      (UnregisterDllNotification)(void (*)(void))GetProcAddress(ntdll, "LdrUnregisterDllNotification");
  PVOID cookie = NULL;
  if (registerNotification == NULL || unregisterNotification == NULL ||
      registerNotification(0, OnDllNotification, NULL, &cookie) != 0) {
    printf("FAIL: no loader notifications\n");
    return 0;
  }
  HMODULE library = LoadLibraryW(dll);
  const DWORD error = GetLastError();
  unregisterNotification(cookie);
  if (library == NULL) {
    printf("FAIL: LoadLibraryW(%ls): error %lu\n", dll, error);
    return 0;
  }
  if (!Snapshot(&after) || !AddWithImports(closure, library, name)) return 0;
  int ok = 1;
  for (int i = 0; i < mapped.count; ++i) {
    const int gone = ContainsName(&unmapped, mapped.names[i]);
    if (print) printf("  %ls%s\n", mapped.names[i], gone ? "  (unloaded again before LoadLibraryW returned)" : "");
    if (!ContainsName(closure, mapped.names[i])) Add(others, mapped.handles[i], mapped.names[i]);
  }
  for (int i = 0; i < closure->count; ++i) {
    if (!Contains(&after, closure->handles[i])) {
      printf("FAIL: %ls is imported but not in the module list\n", closure->names[i]);
      ok = 0;
    }
  }
  if (print) printf("%d DLLs mapped by the load, %d in the import closure\n", mapped.count, closure->count);
  return ok;
}

// Runs this program with `arguments` and answers its exit code.
static DWORD RunSelf(const wchar_t* arguments) {
  wchar_t self[MAX_PATH];
  wchar_t commandLine[2 * MAX_PATH];
  if (GetModuleFileNameW(NULL, self, MAX_PATH) >= MAX_PATH) return 2;
  _snwprintf(commandLine, 2 * MAX_PATH, L"\"%ls\" %ls", self, arguments);
  commandLine[2 * MAX_PATH - 1] = L'\0';
  STARTUPINFOW startup;
  memset(&startup, 0, sizeof startup);
  startup.cb = sizeof startup;
  PROCESS_INFORMATION process;
  if (!CreateProcessW(self, commandLine, NULL, NULL, FALSE, 0, NULL, NULL, &startup, &process)) return 2;
  WaitForSingleObject(process.hProcess, 60000);
  DWORD code = 2;
  GetExitCodeProcess(process.hProcess, &code);
  CloseHandle(process.hThread);
  CloseHandle(process.hProcess);
  return code;
}

// With no arguments: loads Ambrel.dll and checks what came with it. A module
// that is no import is accepted only when a system DLL of the closure loads
// it on its own start (user32.dll loads imm32.dll as it attaches, on Windows
// as under Wine): "--alone <dll> <module>" answers 0 when loading that DLL
// alone, in a fresh process, brings the module outside the DLL's imports.
int wmain(int argc, wchar_t** argv) {
  static ModuleSet closure;
  static ModuleSet others;
  if (argc == 4 && wcscmp(argv[1], L"--alone") == 0) {
    if (!LoadAndSort(argv[2], argv[2], &closure, &others, 0)) return 2;
    for (int i = 0; i < others.count; ++i) {
      if (_wcsicmp(others.names[i], argv[3]) == 0) return 0;
    }
    return 1;
  }

  wchar_t path[MAX_PATH];
  DWORD length = GetModuleFileNameW(NULL, path, MAX_PATH);
  wchar_t* slash = wcsrchr(path, L'\\');
  if (length == 0 || length >= MAX_PATH || slash == NULL || (size_t)(slash - path) + 12 >= MAX_PATH) return 2;
  wcscpy(slash + 1, L"Ambrel.dll");
  printf("DLLs the load of Ambrel.dll mapped, in order:\n");
  int failures = LoadAndSort(path, L"Ambrel.dll", &closure, &others, 1) ? 0 : 1;

  // Candidates by the size of their own import closure, smallest first, so a
  // module is put down to the DLL that loads it, not to one that imports that.
  static int sizes[kMaxModules];
  for (int j = 0; j < closure.count; ++j) {
    static ModuleSet own;
    own.count = 0;
    AddWithImports(&own, closure.handles[j], closure.names[j]);
    sizes[j] = own.count;
  }
  for (int i = 0; i < others.count; ++i) {
    const wchar_t* loader = NULL;
    for (int size = 1; size <= closure.count && loader == NULL; ++size) {
      for (int j = 1; j < closure.count && loader == NULL; ++j) {  // [0] is Ambrel.dll itself
        if (sizes[j] != size) continue;
        wchar_t arguments[2 * (MAX_MODULE_NAME32 + 1) + 16];
        _snwprintf(arguments, sizeof arguments / sizeof arguments[0], L"--alone %ls %ls", closure.names[j],
                   others.names[i]);
        arguments[sizeof arguments / sizeof arguments[0] - 1] = L'\0';
        if (RunSelf(arguments) == 0) loader = closure.names[j];
      }
    }
    if (loader != NULL) {
      printf("%ls: no import; loaded by %ls on its own start (also when %ls is loaded alone)\n", others.names[i],
             loader, loader);
    } else {
      printf("FAIL: %ls: no import of Ambrel.dll or of its imports\n", others.names[i]);
      ++failures;
    }
  }
  if (ContainsName(&mapped, L"rsaenh.dll")) {
    printf("FAIL: rsaenh.dll was loaded\n");
    ++failures;
  } else {
    printf("rsaenh.dll not loaded\n");
  }
  return failures == 0 ? 0 : 1;
}
