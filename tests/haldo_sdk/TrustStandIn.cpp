// Stand-ins for the WINTRUST.DLL and CRYPT32.DLL functions of the wrapper's
// signature check, for tests only. TrustStandInTest patches the library's
// imports of those functions to these for each test, so a test sees each call
// at the moment it is made. For every call they append a
// line to the file named by AMBREL_TRUST_STANDIN_RECORD, fields separated by
// tabs: the function (WinVerifyTrust with "verify" or "close"), then the last
// line of the wrapper's log at that moment ("" when there is none).
//
// Steered by environment variables, read at each call:
//   AMBREL_TRUST_STANDIN_STATUS     what WinVerifyTrust's verify answers (decimal, default 0)
//   AMBREL_TRUST_STANDIN_SIGNATURE  "unreadable": CryptQueryObject fails;
//                                   "other": no certificate names the publisher;
//                                   otherwise one does
//   AMBREL_TRUST_STANDIN_SETTINGS   a file where each WinVerifyTrust call writes what
//                                   it was handed, one "name=value" line each and an
//                                   empty line after the call
//   AMBREL_TRUST_STANDIN_CHANGE     "all": while verifying, another thread tries to
//                                   overwrite, rename and delete the file; "writer":
//                                   it only opens a writer. The outcome is a record
//                                   line "change" overwrite rename remove (0 or the error).
// The certificate store and message handed out are tokens, never dereferenced.
#include <windows.h>
#include <wincrypt.h>
#include <wintrust.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "tests/haldo_sdk/TrustStandInTest.h"

namespace {

std::wstring Variable(const wchar_t* name) {
  wchar_t value[1024] = {};
  const DWORD length = ::GetEnvironmentVariableW(name, value, 1024);
  return length > 0 && length < 1024 ? std::wstring(value, length) : std::wstring();
}

// The wrapper's log, where the library writes it: its last non-empty line.
std::string LastLogLine() {
  const std::wstring file = Variable(L"LOCALAPPDATA") + L"\\Tavrel\\HALDO\\HALDO_APIWrapper.log";
  FILE* log = _wfopen(file.c_str(), L"rb");
  if (!log) return {};
  std::string content;
  char chunk[4096];
  for (size_t got; (got = std::fread(chunk, 1, sizeof chunk, log)) > 0;) content.append(chunk, got);
  std::fclose(log);
  while (!content.empty() && (content.back() == '\n' || content.back() == '\r')) content.pop_back();
  const size_t start = content.find_last_of('\n');
  return start == std::string::npos ? content : content.substr(start + 1);
}

void Record(const std::string& call) {
  const std::wstring file = Variable(L"AMBREL_TRUST_STANDIN_RECORD");
  if (file.empty()) return;
  const std::string line = call + "\t" + LastLogLine() + "\n";
  HANDLE handle = ::CreateFileW(file.c_str(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                OPEN_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr);
  if (handle == INVALID_HANDLE_VALUE) return;
  DWORD written = 0;
  ::WriteFile(handle, line.data(), static_cast<DWORD>(line.size()), &written, nullptr);
  ::CloseHandle(handle);
}

DWORD ErrorUnless(bool succeeded) { return succeeded ? 0 : ::GetLastError(); }

// What another thread gets when it tries to change `path` now.
void TryToChange(const std::wstring& path, bool everything) {
  DWORD overwrite = 0;
  DWORD rename = 0;
  DWORD remove = 0;
  std::thread([&] {
    HANDLE writer = ::CreateFileW(path.c_str(), GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE,
                                  nullptr, OPEN_EXISTING, FILE_ATTRIBUTE_NORMAL, nullptr);
    overwrite = ErrorUnless(writer != INVALID_HANDLE_VALUE);
    if (writer != INVALID_HANDLE_VALUE) ::CloseHandle(writer);
    if (!everything) return;
    rename = ErrorUnless(::MoveFileExW(path.c_str(), (path + L".swapped").c_str(), 0));
    remove = ErrorUnless(::DeleteFileW(path.c_str()));
  }).join();
  Record("change\t" + std::to_string(overwrite) + "\t" + std::to_string(rename) + "\t" + std::to_string(remove));
}

std::string Address(const void* pointer) {
  return pointer ? std::to_string(reinterpret_cast<std::uintptr_t>(pointer)) : std::string("null");
}

std::string Narrow(const wchar_t* text) {
  std::string narrow;
  for (; text && *text; ++text) narrow += static_cast<char>(*text);
  return narrow;
}

// Everything the caller handed WinVerifyTrust, before the call changes any of it.
void WriteSettings(HWND window, const GUID* action, const WINTRUST_DATA* data) {
  const std::wstring file = Variable(L"AMBREL_TRUST_STANDIN_SETTINGS");
  if (file.empty()) return;
  char guid[64] = {};
  std::snprintf(guid, sizeof guid, "{%08lX-%04X-%04X-%02X%02X-%02X%02X%02X%02X%02X%02X}",
                static_cast<unsigned long>(action->Data1), action->Data2, action->Data3, action->Data4[0],
                action->Data4[1], action->Data4[2], action->Data4[3], action->Data4[4], action->Data4[5],
                action->Data4[6], action->Data4[7]);
  std::string text =
      "window=" + Address(window) + "\naction=" + guid + "\ndata=" + Address(data) +
      "\ncbStruct=" + std::to_string(data->cbStruct) + "\npPolicyCallbackData=" + Address(data->pPolicyCallbackData) +
      "\npSIPClientData=" + Address(data->pSIPClientData) + "\ndwUIChoice=" + std::to_string(data->dwUIChoice) +
      "\nfdwRevocationChecks=" + std::to_string(data->fdwRevocationChecks) +
      "\ndwUnionChoice=" + std::to_string(data->dwUnionChoice) +
      "\ndwStateAction=" + std::to_string(data->dwStateAction) +
      "\npwszURLReference=" + Address(data->pwszURLReference) + "\ndwProvFlags=" + std::to_string(data->dwProvFlags) +
      "\ndwUIContext=" + std::to_string(data->dwUIContext);
  if (data->dwUnionChoice == WTD_CHOICE_FILE && data->pFile) {
    text += "\nfile.cbStruct=" + std::to_string(data->pFile->cbStruct) +
            "\nfile.path=" + Narrow(data->pFile->pcwszFilePath) + "\nfile.hFile=" + Address(data->pFile->hFile) +
            "\nfile.pgKnownSubject=" + Address(data->pFile->pgKnownSubject);
  }
  text += "\n\n";
  if (FILE* out = _wfopen(file.c_str(), L"ab")) {
    std::fputs(text.c_str(), out);
    std::fclose(out);
  }
}

const int kStore = 0;
const int kMessage = 0;
CERT_CONTEXT g_found{};

}  // namespace

namespace ambrel::test {

LONG WINAPI StandInWinVerifyTrust(HWND window, GUID* action, LPVOID data) {
  auto* trust = static_cast<WINTRUST_DATA*>(data);
  WriteSettings(window, action, trust);
  const bool verify = trust->dwStateAction == WTD_STATEACTION_VERIFY;
  if (verify) {
    const std::wstring change = Variable(L"AMBREL_TRUST_STANDIN_CHANGE");
    if (!change.empty()) TryToChange(trust->pFile->pcwszFilePath, change == L"all");
  }
  Record(std::string("WinVerifyTrust\t") + (verify ? "verify" : "close"));
  return verify ? std::wcstol(Variable(L"AMBREL_TRUST_STANDIN_STATUS").c_str(), nullptr, 10) : 0;
}

BOOL WINAPI StandInCryptQueryObject(DWORD, const void*, DWORD, DWORD, DWORD, DWORD* encoding, DWORD* contentType,
                                    DWORD* formatType, HCERTSTORE* store, HCRYPTMSG* message, const void**) {
  Record("CryptQueryObject");
  if (Variable(L"AMBREL_TRUST_STANDIN_SIGNATURE") == L"unreadable") {
    ::SetLastError(static_cast<DWORD>(CRYPT_E_NO_MATCH));
    return FALSE;
  }
  if (encoding) *encoding = X509_ASN_ENCODING | PKCS_7_ASN_ENCODING;
  if (contentType) *contentType = CERT_QUERY_CONTENT_PKCS7_SIGNED_EMBED;
  if (formatType) *formatType = CERT_QUERY_FORMAT_BINARY;
  if (store) *store = const_cast<int*>(&kStore);
  if (message) *message = const_cast<int*>(&kMessage);
  return TRUE;
}

PCCERT_CONTEXT WINAPI StandInCertFindCertificateInStore(HCERTSTORE, DWORD, DWORD, DWORD, const void*, PCCERT_CONTEXT) {
  Record("CertFindCertificateInStore");
  if (Variable(L"AMBREL_TRUST_STANDIN_SIGNATURE") == L"other") {
    ::SetLastError(static_cast<DWORD>(CRYPT_E_NOT_FOUND));
    return nullptr;
  }
  return &g_found;
}

BOOL WINAPI StandInCertFreeCertificateContext(PCCERT_CONTEXT) {
  Record("CertFreeCertificateContext");
  return TRUE;
}

BOOL WINAPI StandInCertCloseStore(HCERTSTORE, DWORD) {
  Record("CertCloseStore");
  return TRUE;
}

BOOL WINAPI StandInCryptMsgClose(HCRYPTMSG) {
  Record("CryptMsgClose");
  return TRUE;
}

const std::vector<StandInImport>& TrustStandIns() {
  static const std::vector<StandInImport> imports = {
      {"wintrust.dll", "WinVerifyTrust", reinterpret_cast<void*>(&StandInWinVerifyTrust)},
      {"crypt32.dll", "CryptQueryObject", reinterpret_cast<void*>(&StandInCryptQueryObject)},
      {"crypt32.dll", "CertFindCertificateInStore", reinterpret_cast<void*>(&StandInCertFindCertificateInStore)},
      {"crypt32.dll", "CertFreeCertificateContext", reinterpret_cast<void*>(&StandInCertFreeCertificateContext)},
      {"crypt32.dll", "CertCloseStore", reinterpret_cast<void*>(&StandInCertCloseStore)},
      {"crypt32.dll", "CryptMsgClose", reinterpret_cast<void*>(&StandInCryptMsgClose)},
  };
  return imports;
}

}  // namespace ambrel::test
