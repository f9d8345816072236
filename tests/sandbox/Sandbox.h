// The sandbox of the test programs, the benchmarks and the sample host: a
// registry sandbox, scratch folders, an environment guard, copies of
// Ambrel.dll in chosen folders and a child process runner. Nothing here touches the machine's real hives, user folders
// or environment beyond the build tree's own Wine prefix.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tests/sandbox/ChildProcess.h"

namespace ambrel::test {

// Folder of the running test program; Ambrel.dll and the stand-ins built by the
// project lie beside it.
std::wstring TestBinDirectory();

// Copies the shared C++ runtime DLLs of the build (none with MSVC's /MD,
// whose runtime is installed system-wide) from beside the test programs into
// `folder`, as a host ships them beside its executable.
void CopyRuntimeDllsTo(const std::wstring& folder);

// UTF-8 / UTF-16 for assertions and file contents.
std::string Narrow(const std::wstring& text);
std::wstring Widen(const std::string& text);

// Redirects HKEY_LOCAL_MACHINE and HKEY_CURRENT_USER of this process to two
// scratch keys, named with the time, the process id and a GUID under
// HKCU\Software\AmbrelTestSandbox. The destructor undoes the redirection and
// deletes the scratch keys; stale keys of crashed runs are purged on start.
// Keys listed in `linkedHklmKeys` (paths under HKLM) are registry links to the
// real keys, because system code reads them (WinVerifyTrust reads its
// providers from Software\Microsoft\Cryptography).
class RegistrySandbox {
 public:
  explicit RegistrySandbox(std::vector<std::wstring> linkedHklmKeys = {L"Software\\Microsoft\\Cryptography"});
  ~RegistrySandbox() = default;
  RegistrySandbox(const RegistrySandbox&) = delete;
  RegistrySandbox& operator=(const RegistrySandbox&) = delete;
  RegistrySandbox(RegistrySandbox&&) = delete;
  RegistrySandbox& operator=(RegistrySandbox&&) = delete;

  // Name of the sandbox's scratch key under the real HKCU, for child processes
  // that set up the same redirection (see RedirectToSandbox).
  const std::wstring& ScratchKeyPath() const { return tree_.path; }

  // Values under the redirected hives; each creates the key when missing.
  static void SetString(HKEY root, const std::wstring& subkey, const std::wstring& name, const std::wstring& value,
                        DWORD type = REG_SZ);
  static void SetDword(HKEY root, const std::wstring& subkey, const std::wstring& name, DWORD value);
  static void SetRaw(HKEY root, const std::wstring& subkey, const std::wstring& name, DWORD type, const void* data,
                     DWORD size);
  static void CreateKey(HKEY root, const std::wstring& subkey);
  static void DeleteKey(HKEY root, const std::wstring& subkey);
  static bool ValueExists(HKEY root, const std::wstring& subkey, const std::wstring& name);

 private:
  // The scratch keys under the real HKCU, deleted with their links at the end.
  struct ScratchTree {
    explicit ScratchTree(std::vector<std::wstring> linkedHklmKeys);
    ~ScratchTree();
    ScratchTree(const ScratchTree&) = delete;
    ScratchTree& operator=(const ScratchTree&) = delete;
    std::wstring path;
    std::vector<std::wstring> links;
  };
  // One scratch key, closed at the end.
  struct ScratchKey {
    ScratchKey(const std::wstring& path, const std::vector<std::wstring>& links);
    ~ScratchKey();
    ScratchKey(const ScratchKey&) = delete;
    ScratchKey& operator=(const ScratchKey&) = delete;
    HKEY key = nullptr;
  };
  // One hive redirected to a scratch key, undone by its own destructor, so a
  // throw part-way through the sandbox's constructor leaves no hive redirected.
  struct HiveOverride {
    HiveOverride(HKEY hive, HKEY scratch, const char* what);
    ~HiveOverride();
    HiveOverride(const HiveOverride&) = delete;
    HiveOverride& operator=(const HiveOverride&) = delete;
    HKEY hive;
  };

  // Made in this order, undone in the reverse one.
  ScratchTree tree_;
  ScratchKey hklm_;
  ScratchKey hkcu_;
  HiveOverride hklmOverride_;
  HiveOverride hkcuOverride_;
};

// The shared-components key of release 2026, as the installer writes it.
inline const std::wstring kSharedComponentsKey = L"SOFTWARE\\Tavrel\\SharedComponents\\2026";

// InstallPath, Version and (unless nullopt) EnablePathOverride of that key in
// the sandboxed registry.
void WriteInstallEntry(const std::wstring& installPath, const std::wstring& version,
                       std::optional<DWORD> enableOverride = 0);

// Redirects HKLM and HKCU of this process to an existing sandbox's scratch
// keys (used by child processes started by a test). Returns false on failure.
bool RedirectToSandbox(const std::wstring& scratchKeyPath);

// A fresh folder, removed with its contents at the end. By default under the
// prefix's temporary folder; `parent` puts it elsewhere (for instance R:\).
class ScratchDir {
 public:
  explicit ScratchDir(const std::wstring& parent = L"");
  ~ScratchDir();
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  const std::wstring& path() const { return path_; }
  std::wstring operator/(const std::wstring& name) const { return path_ + L"\\" + name; }
  // Writes bytes to a file below the folder (sub-folders are created).
  std::wstring WriteFile(const std::wstring& name, const std::string& bytes) const;
  std::wstring MakeDir(const std::wstring& name) const;

 private:
  std::wstring path_;
};

// A complete install of release 2026: the folders `dir`\`name`\`version`
// made, and the registry entry over them (see WriteInstallEntry). Returns the
// version folder, the folder a session hands out.
std::wstring WriteCompleteInstall(const ScratchDir& dir, const std::wstring& name, const std::wstring& version,
                                  std::optional<DWORD> enableOverride = 0);

// Restores, at the end of the scope, every variable it was told about or that
// was changed through it, in the CRT and the Win32 environment alike.
class EnvGuard {
 public:
  EnvGuard() = default;
  explicit EnvGuard(std::initializer_list<const wchar_t*> names);
  ~EnvGuard();
  EnvGuard(const EnvGuard&) = delete;
  EnvGuard& operator=(const EnvGuard&) = delete;

  void Set(const std::wstring& name, const std::wstring& value);
  void Unset(const std::wstring& name);
  static std::optional<std::wstring> Get(const std::wstring& name);
  // What the runtime keeps of `value` when asked to store it (asked on a
  // scratch variable, restored at once); nullopt when the write is refused.
  // Wine's runtime cuts a value past 32,766 characters to that length.
  static std::optional<std::wstring> Kept(const std::wstring& value);

 private:
  void Remember(const std::wstring& name);
  std::vector<std::pair<std::wstring, std::optional<std::wstring>>> saved_;
};

// A copy of Ambrel.dll (and optional companions from the bin folder) in a
// folder of its own, loaded with LoadLibraryW; freed and deleted at the end.
// Use a parent of L"R:\\" for a development build.
class LibraryCopy {
 public:
  explicit LibraryCopy(const std::wstring& parent = L"", const std::vector<std::wstring>& companions = {});
  ~LibraryCopy();
  LibraryCopy(const LibraryCopy&) = delete;
  LibraryCopy& operator=(const LibraryCopy&) = delete;

  HMODULE module() const { return module_; }
  const std::wstring& directory() const { return dir_.path(); }
  const std::wstring& file() const { return file_; }
  FARPROC Proc(const char* name) const { return ::GetProcAddress(module_, name); }
  template <typename Fn>
  Fn As(const char* name) const {
    return reinterpret_cast<Fn>(Proc(name));
  }

 private:
  ScratchDir dir_;
  std::wstring file_;
  HMODULE module_ = nullptr;
};

// The export names of C++ functions differ between compilers.
// Compiler-specific: Itanium mangling for mingw builds, MSVC's decoration otherwise.
#if defined(_MSC_VER)
#define AMBREL_EXPORT_NAME(msvc, itanium) msvc
#else
#define AMBREL_EXPORT_NAME(msvc, itanium) itanium
#endif

// An environment value holds at most 32,767 characters with its terminator.
inline constexpr size_t kLongestEnvironmentValue = 32766;

// A ';'-separated list "E00001;E00002;..." cut to exactly `length` characters.
std::wstring PathListOfLength(size_t length);

// The whole content of a file as bytes; empty when it cannot be read.
std::string ReadFileBytes(const std::wstring& path);

// Splits text into lines at "\r\n" or "\n" (a final empty piece is dropped).
std::vector<std::string> SplitLines(const std::string& text);

// "This library" is the test program here, so Kalvex.ini goes beside it; it
// is removed again at the end of the test.
class KalvexIniBesideTheProgram {
 public:
  KalvexIniBesideTheProgram() : file_(TestBinDirectory() + L"\\Kalvex.ini") {}
  ~KalvexIniBesideTheProgram() { ::DeleteFileW(file_.c_str()); }
  bool WasAbsent() const { return ::GetFileAttributesW(file_.c_str()) == INVALID_FILE_ATTRIBUTES; }
  bool SetEdition(const wchar_t* edition) const {
    return ::WritePrivateProfileStringW(L"Tavrel Kalvex Installation Options", L"ProductEdition", edition,
                                        file_.c_str()) != FALSE;
  }

 private:
  std::wstring file_;
};

}  // namespace ambrel::test
