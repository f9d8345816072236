// A tiny host built against the installed package: it links Ambrel.dll through
// the package's import library, with its own copy of the C++ headers, and
// checks what a host can observe across the DLL boundary: the global locale,
// the call stack, the exceptions and their messages, strings the library
// allocates and the host frees. Exit code 0 when each answer is the expected one.
#include <windows.h>
#include <shlguid.h>
#include <shobjidl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <cwchar>
#include <filesystem>
#include <locale>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "Ambrel.h"
#include "osx/FakeShellLink.h"

namespace {

int failures = 0;

void Check(bool condition, const char* what) {
  std::printf("%s: %s\n", condition ? "ok  " : "FAIL", what);
  if (!condition) ++failures;
}

std::string Narrow(const std::wstring& text) {
  std::string out;
  for (const wchar_t c : text) out += c < 0x80 ? static_cast<char>(c) : '?';
  return out;
}

// The host compiles as C++17 too: no std::wstring::starts_with there.
bool StartsWith(const std::wstring& text, std::wstring_view prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}
bool EndsWith(const std::wstring& text, std::wstring_view suffix) {
  return text.size() >= suffix.size() && text.compare(text.size() - suffix.size(), suffix.size(), suffix) == 0;
}

std::vector<std::wstring> Lines(const std::wstring& text) {
  std::vector<std::wstring> lines;
  size_t start = 0;
  for (size_t end; (end = text.find(L'\n', start)) != std::wstring::npos; start = end + 1)
    lines.push_back(text.substr(start, end - start));
  return lines;
}

bool InModule(const std::wstring& line, const std::wstring& name) {
  return _wcsnicmp(line.c_str(), (name + L"! ").c_str(), name.size() + 2) == 0;
}

// Frame lines of the captured text that belong to the module `name`.
std::vector<std::wstring> FramesOf(const std::wstring& stack, const std::wstring& name) {
  std::vector<std::wstring> frames;
  for (const auto& line : Lines(stack))
    if (InModule(line, name)) frames.push_back(line);
  return frames;
}

// An environment variable set for a while, then put back as it was.
class ScopedVariable {
 public:
  ScopedVariable(const wchar_t* name, const std::wstring& value) : name_(name) {
    if (const wchar_t* old = _wgetenv(name)) old_ = old;
    _wputenv_s(name, value.c_str());
  }
  ~ScopedVariable() { _wputenv_s(name_, old_ ? old_->c_str() : L""); }
  ScopedVariable(const ScopedVariable&) = delete;
  ScopedVariable& operator=(const ScopedVariable&) = delete;

 private:
  const wchar_t* name_;
  std::optional<std::wstring> old_;
};

// A scratch folder under the temporary directory, removed at the end.
class ScratchFolder {
 public:
  ScratchFolder() {
    path_ = std::filesystem::temp_directory_path() / (L"ambrel-consumer-" + std::to_wstring(::GetCurrentProcessId()) +
                                                      L"-" + std::to_wstring(::GetTickCount64()));
    std::filesystem::create_directories(path_);
  }
  ~ScratchFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  ScratchFolder(const ScratchFolder&) = delete;
  ScratchFolder& operator=(const ScratchFolder&) = delete;
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

// HKEY_LOCAL_MACHINE of this process redirected to an empty scratch key under
// HKCU, so nothing the library reads or the test writes touches the real hive.
class MachineHiveSandbox {
 public:
  MachineHiveSandbox() {
    path_ = L"Software\\AmbrelConsumerSandbox\\" + std::to_wstring(::GetCurrentProcessId());
    ::RegCreateKeyExW(HKEY_CURRENT_USER, path_.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key_, nullptr);
    redirected_ = key_ && ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, key_) == ERROR_SUCCESS;
  }
  ~MachineHiveSandbox() {
    ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, nullptr);
    if (key_) ::RegCloseKey(key_);
    ::RegDeleteTreeW(HKEY_CURRENT_USER, path_.c_str());
    ::RegDeleteKeyW(HKEY_CURRENT_USER, L"Software\\AmbrelConsumerSandbox");
  }
  MachineHiveSandbox(const MachineHiveSandbox&) = delete;
  MachineHiveSandbox& operator=(const MachineHiveSandbox&) = delete;
  bool redirected() const { return redirected_; }

  static void SetString(const wchar_t* subkey, const wchar_t* name, const std::wstring& value) {
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, subkey, name, REG_SZ, value.c_str(),
                      static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
  }
  static void SetDword(const wchar_t* subkey, const wchar_t* name, DWORD value) {
    ::RegSetKeyValueW(HKEY_LOCAL_MACHINE, subkey, name, REG_DWORD, &value, sizeof(value));
  }

 private:
  std::wstring path_;
  HKEY key_ = nullptr;
  bool redirected_ = false;
};

// ---- the global locale

// A facet of the host's own: a locale made with it is nameless ("*").
struct HostNumpunct : std::numpunct<char> {
  char do_decimal_point() const override { return ','; }
};

void GlobalLocaleReachesTheLibrary() {
  Check(OSxMisc::IsEnglish(), "IsEnglish() is true under the classic global locale");
  const std::locale previous = std::locale::global(std::locale(std::locale::classic(), new HostNumpunct));
  Check(!OSxMisc::IsEnglish(), "IsEnglish() is false once the host installs a locale of its own");
  std::locale::global(std::locale::classic());
  Check(OSxMisc::IsEnglish(), "IsEnglish() is true again once the host restores the classic locale");
  std::locale::global(previous);
}

// ---- the call stack

// Kept out of line, and the volatile result keeps the call from becoming a
// tail jump, so this function has a frame of its own: the library's caller.
namespace host {
__declspec(noinline) bool CaptureFromHost(std::wstring& text) {
  volatile bool captured = OSxMisc::GetCallStack(text);
  return captured;
}
}  // namespace host

void CallStackStartsAtTheLibraryThenTheHost(bool ambrelPdbExpected) {
  std::wstring stack = L"replaced";
  const bool captured = host::CaptureFromHost(stack);
  Check(captured, "OSxMisc::GetCallStack returns true");
  std::printf("%ls", stack.c_str());
  const auto lines = Lines(stack);
  Check(lines.size() >= 3, "the stack has at least three frames");
  if (lines.size() < 3) return;
  Check(InModule(lines[0], L"Ambrel") && FramesOf(stack, L"Ambrel").size() == 1, "line 1 is the library's only frame");
  Check(InModule(lines[1], L"consumer_host") && lines[1].find(L"CaptureFromHost [") != std::wstring::npos,
        "line 2 is the host function that called GetCallStack");
  if (ambrelPdbExpected) {
    // Named with file and line from the Ambrel.pdb shipped beside the DLL.
    Check(StartsWith(lines[0], L"ambrel! OSxMisc::GetCallStack [") &&
              lines[0].find(L"CallStack.cpp @ ") != std::wstring::npos,
          "line 1 is OSxMisc::GetCallStack with CallStack.cpp and a line");
  } else {
    Check(EndsWith(lines[0], L"! _NA_\t[NULL]\t"), "without Ambrel.pdb, the library's frame is _NA_ and [NULL]");
  }
  // The host's own frames are named from consumer_host's own PDB.
  bool mainNamed = false;
  for (const auto& frame : FramesOf(stack, L"consumer_host"))
    mainNamed |= StartsWith(frame, L"consumer_host! main [") && frame.find(L"Host.cpp @ ") != std::wstring::npos;
  Check(mainNamed, "the host's main is named with file and line");
  // `stack` was filled by the library and is freed here by the host.
}

// ---- shortcuts: a string the library makes, and the length error

// Hands the host's fake link object to every CoCreateInstance of the shell
// link in this process while registered.
class FakeLinkFactory final : public IClassFactory {
 public:
  explicit FakeLinkFactory(ambrel::test::FakeShellLink& link) : link_(link) {}
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID iid, void** out) override {
    *out = (iid == IID_IUnknown || iid == IID_IClassFactory) ? static_cast<IClassFactory*>(this) : nullptr;
    return *out ? S_OK : E_NOINTERFACE;
  }
  ULONG STDMETHODCALLTYPE AddRef() override { return 2; }  // lives on the host's stack
  ULONG STDMETHODCALLTYPE Release() override { return 1; }
  HRESULT STDMETHODCALLTYPE CreateInstance(IUnknown* outer, REFIID iid, void** out) override {
    if (outer) return CLASS_E_NOAGGREGATION;
    return link_.QueryInterface(iid, out);
  }
  HRESULT STDMETHODCALLTYPE LockServer(BOOL) override { return S_OK; }

 private:
  ambrel::test::FakeShellLink& link_;
};

bool SaveShortcut(const std::wstring& file, const std::wstring& target) {
  IShellLinkW* link = nullptr;
  if (FAILED(::CoCreateInstance(CLSID_ShellLink, nullptr, CLSCTX_INPROC_SERVER, IID_IShellLinkW,
                                reinterpret_cast<void**>(&link))))
    return false;
  IPersistFile* persist = nullptr;
  bool saved = SUCCEEDED(link->SetPath(target.c_str())) &&
               SUCCEEDED(link->QueryInterface(IID_IPersistFile, reinterpret_cast<void**>(&persist))) &&
               SUCCEEDED(persist->Save(file.c_str(), TRUE));
  if (persist) persist->Release();
  link->Release();
  return saved;
}

void ShortcutsAcrossTheBoundary(const ScratchFolder& scratch) {
  // A target long enough that the string lives on the heap, not inline.
  const std::wstring target = (scratch.path() / L"a target folder with a long name\\program.exe").wstring();
  std::filesystem::create_directories(std::filesystem::path(target).parent_path());
  {
    std::FILE* file = _wfopen(target.c_str(), L"wb");
    if (file) std::fclose(file);
  }
  const std::wstring shortcut = (scratch.path() / L"program.lnk").wstring();
  Check(SaveShortcut(shortcut, target), "the host saves a shortcut with the shell");
  {
    const std::wstring read = OSxFolder::GetPathFromShortcut(shortcut.c_str());
    Check(_wcsicmp(read.c_str(), target.c_str()) == 0, "GetPathFromShortcut gives the target");
    // `read` is freed here by the host.
  }

  // GetPath failing: the shell's own link object never does that here, so the
  // host registers a link object of its own for this process.
  ambrel::test::FakeShellLink fake;
  fake.getPathResult = E_FAIL;
  FakeLinkFactory factory(fake);
  DWORD cookie = 0;
  const HRESULT registered =
      ::CoRegisterClassObject(CLSID_ShellLink, &factory, CLSCTX_INPROC_SERVER, REGCLS_MULTIPLEUSE, &cookie);
  Check(SUCCEEDED(registered), "the host registers its own link object");
  if (FAILED(registered)) return;
  std::optional<std::string> message;
  try {
    (void)OSxFolder::GetPathFromShortcut(shortcut.c_str());
  } catch (const std::length_error& error) {
    message = error.what();
  }
  ::CoRevokeClassObject(cookie);
  Check(fake.getPathCalls == 1, "the library asked the host's link object for the path");
  Check(message.has_value(), "a failing GetPath reaches the host as std::length_error");
  Check(message && *message == "string too long", "its what() is \"string too long\"");
  if (message) std::printf("      what(): %s\n", message->c_str());
}

// ---- the bootstrap's file-system errors

std::vector<std::wstring> g_sinkMessages;
void HostSink(std::wstring level, std::wstring message) {
  // Both strings were made by the library and are freed here by the host.
  g_sinkMessages.push_back(level + L": " + message);
}

struct HostSinkError : std::runtime_error {
  using std::runtime_error::runtime_error;
};
void ThrowingSink(std::wstring, std::wstring) { throw HostSinkError("the host's sink refuses"); }

const wchar_t kSharedKey[] = L"SOFTWARE\\Tavrel\\SharedComponents\\2026";
const wchar_t kShellFolders[] = L"Software\\Microsoft\\Windows\\CurrentVersion\\Explorer\\User Shell Folders";

// Sets its flag when destroyed: a local of the host's frame that the
// exception unwinds.
class UnwindSentinel {
 public:
  explicit UnwindSentinel(bool& destroyed) : destroyed_(destroyed) {}
  ~UnwindSentinel() { destroyed_ = true; }
  UnwindSentinel(const UnwindSentinel&) = delete;
  UnwindSentinel& operator=(const UnwindSentinel&) = delete;

 private:
  bool& destroyed_;
};

// What InitializeQel let out, as the host caught it, and whether the host's
// local in the throwing scope was destroyed on the way.
struct Caught {
  bool filesystemError = false;
  std::string what;
  std::wstring path;
  int code = 0;
  bool localDestroyed = false;
};
Caught InitializeCatching() {
  Caught caught;
  bool destroyed = false;
  try {
    const UnwindSentinel sentinel(destroyed);
    (void)InitializeQel();
  } catch (const std::filesystem::filesystem_error& error) {
    caught = {true, error.what(), error.path1().wstring(), error.code().value()};
  }
  caught.localDestroyed = destroyed;
  return caught;
}

void FileSystemErrorsReachTheHost(const ScratchFolder& scratch) {
  MachineHiveSandbox hive;
  Check(hive.redirected(), "HKEY_LOCAL_MACHINE is redirected to a scratch key");
  if (!hive.redirected()) return;
  // The wrapper's log goes to the scratch folder; no marker from outside.
  const ScopedVariable localAppData(L"LOCALAPPDATA", scratch.path().wstring());
  const ScopedVariable marker(L"QEL_INITIALIZE_BYPASSED", L"");
  const QelSessionLogSink previousSink = SetQelSessionLogSink(&HostSink);

  // The folder test: a raw disk as the override folder is neither there nor
  // missing (Wine: ERROR_BAD_DEV_TYPE; Windows: access denied).
  {
    MachineHiveSandbox::SetDword(kSharedKey, L"EnablePathOverride", 1);
    const ScopedVariable folder(L"QEL_PATH_2026", L"\\\\.\\PhysicalDrive0");
    const Caught caught = InitializeCatching();
    Check(caught.filesystemError, "InitializeQel: the folder test's filesystem_error reaches the host");
    Check(caught.what.find("status") != std::string::npos, "  named after the operation \"status\"");
    Check(caught.path == L"\\\\.\\PhysicalDrive0", "  with the folder as its path");
    Check(caught.localDestroyed, "  and the host's local in the throwing scope was destroyed");
    std::printf("      what(): %s\n", caught.what.c_str());
    Check(!g_sinkMessages.empty(), "the host's sink received the session's messages");
  }

  // The self-update lock file under a program-data folder that is a device.
  {
    MachineHiveSandbox::SetString(kShellFolders, L"Common AppData", L"\\\\.\\NUL");
    const Caught caught = InitializeCatching();
    Check(caught.filesystemError, "InitializeQel: the lock-file test's filesystem_error reaches the host");
    Check(caught.what.find("exists") != std::string::npos, "  named after the operation \"exists\"");
    Check(caught.code != 0, "  with the Windows error as its code");
    std::printf("      what(): %s (code %d)\n", caught.what.c_str(), caught.code);

    // The same test runs in the throw-away session of the folder lookup,
    // and so in the delay-load hook's first lookup.
    std::string lookupWhat;
    try {
      (void)GetSharedDllPath();
    } catch (const std::filesystem::filesystem_error& error) {
      lookupWhat = error.what();
    }
    Check(lookupWhat.find("exists") != std::string::npos,
          "GetSharedDllPath: the same filesystem_error reaches the host");
    std::printf("      what(): %s\n", lookupWhat.c_str());
    DelayLoadInfo info = {};
    info.cb = sizeof(info);
    info.szDll = "ambrel_consumer_nowhere.dll";
    std::string hookWhat;
    try {
      (void)QelLoadHelper::DelayLoadHook(dliFailLoadLib, &info);
    } catch (const std::filesystem::filesystem_error& error) {
      hookWhat = error.what();
    }
    Check(hookWhat.find("exists") != std::string::npos, "DelayLoadHook: the same filesystem_error reaches the host");
    std::printf("      what(): %s\n", hookWhat.c_str());
    ::RegDeleteKeyValueW(HKEY_LOCAL_MACHINE, kShellFolders, L"Common AppData");
  }

  // What the host's own sink throws leaves the export as it was thrown.
  {
    SetQelSessionLogSink(&ThrowingSink);
    std::optional<std::string> thrown;
    try {
      (void)InitializeQel();
    } catch (const HostSinkError& error) {
      thrown = error.what();
    }
    SetQelSessionLogSink(&HostSink);
    Check(thrown == "the host's sink refuses",
          "InitializeQel: an exception of the host's sink reaches the host unchanged");
    if (thrown) std::printf("      what(): %s\n", thrown->c_str());
  }
  Check(OSxFolder::GetSharedDllPath()[0] == L'\0', "nothing was recorded");
  SetQelSessionLogSink(previousSink);
  for (const auto& line : g_sinkMessages) std::printf("      sink: %s\n", Narrow(line).c_str());
}

}  // namespace

// "--without-ambrel-pdb": the host runs from a folder that holds Ambrel.dll
// but not Ambrel.pdb, and Ambrel's frames must then stay unnamed.
int main(int argc, char** argv) {
  const bool ambrelPdbExpected = !(argc > 1 && std::strcmp(argv[1], "--without-ambrel-pdb") == 0);
  std::printf("consumer host, Ambrel package %s\n", AMBREL_EXPECTED_VERSION);

  wchar_t file[MAX_PATH] = {};
  ::GetModuleFileNameW(::GetModuleHandleW(L"Ambrel.dll"), file, MAX_PATH);
  std::printf("Ambrel.dll loaded from %ls\n", file);
  Check(file[0] != L'\0', "Ambrel.dll is loaded through the import library");
  // One C++ runtime: the library's libstdc++ is the host's, from the host's folder.
  wchar_t runtime[MAX_PATH] = {};
  if (HMODULE shared = ::GetModuleHandleW(L"libstdc++-6.dll")) ::GetModuleFileNameW(shared, runtime, MAX_PATH);
  if (runtime[0] != L'\0') std::printf("C++ runtime loaded from %ls\n", runtime);

  // The package lies in the build tree, not on drive R:.
  Check(!QelLoadHelper::IsDevelopment(), "QelLoadHelper::IsDevelopment() is false");

  CallStackStartsAtTheLibraryThenTheHost(ambrelPdbExpected);
  GlobalLocaleReachesTheLibrary();
  {
    const ScratchFolder scratch;
    if (SUCCEEDED(::CoInitializeEx(nullptr, COINIT_APARTMENTTHREADED))) {
      ShortcutsAcrossTheBoundary(scratch);
      ::CoUninitialize();
    } else {
      Check(false, "COM initialises on the host's thread");
    }
    FileSystemErrorsReachTheHost(scratch);
  }

  std::printf("%s\n", failures == 0 ? "consumer host passed" : "consumer host FAILED");
  return failures == 0 ? 0 : 1;
}
