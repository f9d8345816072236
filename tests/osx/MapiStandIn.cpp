// A stand-in MAPI32.DLL for the mail tests. Loaded from beside the test
// program (WINEDLLOVERRIDES=mapi32=n), it appends to the file named by
// AMBREL_MAPI_STANDIN_RECORD one line per load ("attach <its path>") and
// unload ("detach"), and for each MAPISendMail call a block of "field=value"
// lines with every argument and every field of the message; texts are written
// as the hex of their bytes, null pointers as "null". It answers the decimal
// number in AMBREL_MAPI_STANDIN_RESULT (0 when unset).
#include <windows.h>
#include <mapi.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

std::wstring Variable(const wchar_t* name) {
  wchar_t value[1024] = {};
  const DWORD length = ::GetEnvironmentVariableW(name, value, 1024);
  return length > 0 && length < 1024 ? std::wstring(value, length) : std::wstring();
}

void Append(const std::string& text) {
  const std::wstring file = Variable(L"AMBREL_MAPI_STANDIN_RECORD");
  if (file.empty()) return;
  HANDLE handle = ::CreateFileW(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return;
  DWORD written = 0;
  ::WriteFile(handle, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
  ::CloseHandle(handle);
}

std::string Text(const char* text) {
  if (text == nullptr) return "null";
  std::string hex = "hex:";
  static const char digits[] = "0123456789abcdef";
  for (const unsigned char* at = reinterpret_cast<const unsigned char*>(text); *at != 0; ++at) {
    hex += digits[*at >> 4];
    hex += digits[*at & 15];
  }
  return hex;
}

std::string Pointer(const void* pointer) { return pointer == nullptr ? "null" : "set"; }

std::string Number(unsigned long long value) { return std::to_string(value); }

std::string Field(const std::string& name, const std::string& value) { return name + "=" + value + "\n"; }

}  // namespace

BOOL WINAPI DllMain(HINSTANCE instance, DWORD reason, LPVOID) {
  if (reason == DLL_PROCESS_ATTACH) {
    char path[MAX_PATH] = {};
    ::GetModuleFileNameA(instance, path, MAX_PATH);
    Append(std::string("attach ") + path + "\n");
  } else if (reason == DLL_PROCESS_DETACH) {
    Append("detach\n");
  }
  return TRUE;
}

// Tells the tests that this, not the system's MAPI32, was loaded.
extern "C" int AmbrelMapiStandIn() { return 1; }

extern "C" ULONG WINAPI MAPISendMail(LHANDLE session, ULONG_PTR uiParam, lpMapiMessage message, FLAGS flags,
                                     ULONG reserved) {
  std::string record = "call\n";
  record += Field("session", Number(session));
  record += Field("uiParam", Number(uiParam));
  record += Field("flags", Number(flags));
  record += Field("reserved", Number(reserved));
  record += Field("message", Pointer(message));
  if (message != nullptr) {
    record += Field("ulReserved", Number(message->ulReserved));
    record += Field("lpszSubject", Text(message->lpszSubject));
    record += Field("lpszNoteText", Text(message->lpszNoteText));
    record += Field("lpszMessageType", Text(message->lpszMessageType));
    record += Field("lpszDateReceived", Text(message->lpszDateReceived));
    record += Field("lpszConversationID", Text(message->lpszConversationID));
    record += Field("flFlags", Number(message->flFlags));
    record += Field("lpOriginator", Pointer(message->lpOriginator));
    record += Field("nRecipCount", Number(message->nRecipCount));
    record += Field("lpRecips", Pointer(message->lpRecips));
    for (ULONG i = 0; message->lpRecips != nullptr && i < message->nRecipCount; ++i) {
      const MapiRecipDesc& recipient = message->lpRecips[i];
      const std::string prefix = "recip" + Number(i) + ".";
      record += Field(prefix + "ulReserved", Number(recipient.ulReserved));
      record += Field(prefix + "ulRecipClass", Number(recipient.ulRecipClass));
      record += Field(prefix + "lpszName", Text(recipient.lpszName));
      record += Field(prefix + "lpszAddress", Text(recipient.lpszAddress));
      record += Field(prefix + "ulEIDSize", Number(recipient.ulEIDSize));
      record += Field(prefix + "lpEntryID", Pointer(recipient.lpEntryID));
    }
    record += Field("nFileCount", Number(message->nFileCount));
    record += Field("lpFiles", Pointer(message->lpFiles));
    for (ULONG i = 0; message->lpFiles != nullptr && i < message->nFileCount; ++i) {
      const MapiFileDesc& file = message->lpFiles[i];
      const std::string prefix = "file" + Number(i) + ".";
      record += Field(prefix + "ulReserved", Number(file.ulReserved));
      record += Field(prefix + "flFlags", Number(file.flFlags));
      record += Field(prefix + "nPosition", Number(file.nPosition));
      record += Field(prefix + "lpszPathName", Text(file.lpszPathName));
      record += Field(prefix + "lpszFileName", Text(file.lpszFileName));
      record += Field(prefix + "lpFileType", Pointer(file.lpFileType));
      record += Field(prefix + "samePathAndName", file.lpszPathName == file.lpszFileName ? "yes" : "no");
    }
  }
  record += "end\n";
  Append(record);
  const std::wstring result = Variable(L"AMBREL_MAPI_STANDIN_RESULT");
  return result.empty() ? 0 : static_cast<ULONG>(std::wcstoul(result.c_str(), nullptr, 10));
}
