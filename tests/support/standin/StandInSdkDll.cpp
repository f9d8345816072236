// A stand-in for the installer SDK DLL, for tests only. It exports the SDK's
// five entry points as plain C functions and is steered through two files
// named by environment variables, because the wrapper unloads it between
// sessions and nothing kept in the DLL would survive:
//   AMBREL_STANDIN_SDK_CONFIG  lines "Export=<int>" (the result that export
//                              returns, 0 when absent), "SessionId=<text>" and
//                              "FailAttach=1" (the DLL refuses to load) and
//                              "HandleRecord=<file>" (Initialize and LockDirectory
//                              append "<export>\t<handles this process holds>") and
//                              "HoldProbe=<file>" (the entry point tries to open
//                              its own file for deletion and writes "opened" or
//                              the error there);
//   AMBREL_STANDIN_SDK_RECORD  every call is appended, one line each, fields
//                              separated by tabs (see StandInSdk.h on the test side).
// Defining STANDIN_OMIT_<Export> leaves that export out.
#include <windows.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "tests/support/HandleCount.h"

namespace {

// The memory most recently handed out by Initialize, so ReleaseMemory can say
// whether it got that very pointer back.
char* g_handedOut = nullptr;

std::string ReadVariable(const char* name) {
  char value[1024] = {};
  const DWORD length = ::GetEnvironmentVariableA(name, value, sizeof value);
  return length > 0 && length < sizeof value ? std::string(value, length) : std::string();
}

// The configured value of `key`, or `fallback`. Lines may be of any length
// (a session id of 64 KiB is one of the configured values).
std::string ConfigValue(const char* key, const std::string& fallback) {
  const std::string path = ReadVariable("AMBREL_STANDIN_SDK_CONFIG");
  if (path.empty()) return fallback;
  FILE* file = std::fopen(path.c_str(), "rb");
  if (!file) return fallback;
  std::string content;
  char chunk[4096];
  for (size_t got; (got = std::fread(chunk, 1, sizeof chunk, file)) > 0;) content.append(chunk, got);
  std::fclose(file);

  std::string result = fallback;
  const size_t keyLength = std::strlen(key);
  for (size_t start = 0; start < content.size();) {
    size_t end = content.find('\n', start);
    if (end == std::string::npos) end = content.size();
    std::string text = content.substr(start, end - start);
    start = end + 1;
    while (!text.empty() && text.back() == '\r') text.pop_back();
    if (text.size() > keyLength && text.compare(0, keyLength, key) == 0 && text[keyLength] == '=')
      result = text.substr(keyLength + 1);
  }
  return result;
}

int ConfiguredResult(const char* exportName) { return std::atoi(ConfigValue(exportName, "0").c_str()); }

void Record(const std::string& line) {
  const std::string path = ReadVariable("AMBREL_STANDIN_SDK_RECORD");
  if (path.empty()) return;
  if (FILE* file = std::fopen(path.c_str(), "ab")) {
    std::fputs((line + "\n").c_str(), file);
    std::fclose(file);
  }
}

// The process's handle count as the SDK sees it when `exportName` is entered.
void RecordHandles(const char* exportName) {
  const std::string path = ConfigValue("HandleRecord", "");
  if (path.empty()) return;
  if (FILE* file = std::fopen(path.c_str(), "ab")) {
    std::fputs((std::string(exportName) + "\t" + std::to_string(ambrel::test::CountProcessHandles()) + "\n").c_str(),
               file);
    std::fclose(file);
  }
}

std::string Text(const char* value) { return value ? std::string(value) : std::string("<null>"); }

// LockDirectory and UnLockDirectory behave alike.
int DirectoryCall(const char* exportName, const char* sessionId, const char* directory) {
  const int result = ConfiguredResult(exportName);
  Record(std::string(exportName) + "\t" + Text(sessionId) + "\t" + Text(directory) + "\t" + std::to_string(result));
  return result;
}

}  // namespace

#if defined(__GLIBCXX__)
// Compiler-specific (static libstdc++): its emergency exception pool (about
// 72 KiB) is allocated from the process heap when the DLL loads and is not
// given back when it unloads, unless asked. The wrapper unloads the SDK after
// every session, so without this each session cycle would leave that much
// behind in the host and hide what the library itself keeps.
namespace __gnu_cxx {
void __freeres() noexcept;
}
#endif

extern "C" {

// Whether the file this DLL is loaded from can be opened for deletion while
// the loader loads it: refused only while someone holds it open sharing it
// with readers alone.
void ProbeHold(HINSTANCE self) {
  const std::string path = ConfigValue("HoldProbe", "");
  if (path.empty()) return;
  wchar_t file[MAX_PATH] = {};
  ::GetModuleFileNameW(self, file, MAX_PATH);
  HANDLE handle = ::CreateFileW(file, DELETE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
  const std::string result = handle != INVALID_HANDLE_VALUE ? "opened" : std::to_string(::GetLastError());
  if (handle != INVALID_HANDLE_VALUE) ::CloseHandle(handle);
  if (FILE* out = std::fopen(path.c_str(), "wb")) {
    std::fputs(result.c_str(), out);
    std::fclose(out);
  }
}

BOOL WINAPI DllMain(HINSTANCE self, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    ProbeHold(self);
    if (ConfigValue("FailAttach", "0") == "1") {
      Record("AttachRefused");
      return FALSE;
    }
    Record("Attach");
  }
  if (reason == DLL_PROCESS_DETACH) {
    Record("Detach");
#if defined(__GLIBCXX__)
    __gnu_cxx::__freeres();
#endif
  }
  return TRUE;
}

#ifndef STANDIN_OMIT_Initialize
__declspec(dllexport) int Initialize(const char* plc, const char* release, const char* language, char** sessionId) {
  RecordHandles("Initialize");
  const int result = ConfiguredResult("Initialize");
  const std::string incoming = !sessionId ? "no-slot" : (*sessionId ? "set" : "null");
  if (result == 0 && sessionId) {
    const std::string id = ConfigValue("SessionId", "standin-session");
    g_handedOut = static_cast<char*>(std::malloc(id.size() + 1));
    std::memcpy(g_handedOut, id.c_str(), id.size() + 1);
    *sessionId = g_handedOut;
  }
  Record("Initialize\t" + Text(plc) + "\t" + Text(release) + "\t" + Text(language) + "\t" + incoming + "\t" +
         std::to_string(result));
  return result;
}
#endif

#ifndef STANDIN_OMIT_ReleaseMemory
__declspec(dllexport) int ReleaseMemory(const char* sessionId, char** memory) {
  std::string pointer = "no-slot";
  if (memory) {
    if (!*memory) {
      pointer = "null";
    } else if (*memory == g_handedOut) {
      pointer = "handed-out";
      std::free(g_handedOut);
      g_handedOut = nullptr;
      *memory = nullptr;
    } else {
      pointer = "foreign";
    }
  }
  Record("ReleaseMemory\t" + Text(sessionId) + "\t" + pointer);
  return ConfiguredResult("ReleaseMemory");
}
#endif

#ifndef STANDIN_OMIT_Uninitialize
__declspec(dllexport) int Uninitialize(const char* sessionId) {
  const int result = ConfiguredResult("Uninitialize");
  Record("Uninitialize\t" + Text(sessionId) + "\t" + std::to_string(result));
  return result;
}
#endif

#ifndef STANDIN_OMIT_LockDirectory
__declspec(dllexport) int LockDirectory(const char* sessionId, const char* directory) {
  RecordHandles("LockDirectory");
  return DirectoryCall("LockDirectory", sessionId, directory);
}
#endif

#ifndef STANDIN_OMIT_UnLockDirectory
__declspec(dllexport) int UnLockDirectory(const char* sessionId, const char* directory) {
  return DirectoryCall("UnLockDirectory", sessionId, directory);
}
#endif

}  // extern "C"
