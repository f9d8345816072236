// The registry sandbox: scratch keys under the real HKCU, the hives redirected
// to them, and the shared-components entry written there.
#include "tests/sandbox/Sandbox.h"

#include <objbase.h>

#include <ctime>
#include <stdexcept>

namespace ambrel::test {

namespace {

constexpr wchar_t kSandboxRoot[] = L"Software\\AmbrelTestSandbox";
constexpr long long kStaleSeconds = 6 * 3600;

void Check(LSTATUS status, const char* what) {
  if (status != ERROR_SUCCESS) throw std::runtime_error(std::string(what) + " failed: " + std::to_string(status));
}

HKEY CreateKeyUnder(HKEY root, const std::wstring& subkey) {
  HKEY key = nullptr;
  Check(::RegCreateKeyExW(root, subkey.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr),
        "RegCreateKeyExW");
  return key;
}

// A registry link is deleted through a handle opened on the link itself, so
// the delete never reaches the key it points at.
void DeleteLink(HKEY root, const std::wstring& path) {
  using NtDeleteKeyFn = LONG(NTAPI*)(HANDLE);
  static const auto ntDeleteKey =
      reinterpret_cast<NtDeleteKeyFn>(::GetProcAddress(::GetModuleHandleW(L"ntdll.dll"), "NtDeleteKey"));
  HKEY link = nullptr;
  if (::RegOpenKeyExW(root, path.c_str(), REG_OPTION_OPEN_LINK, DELETE | KEY_QUERY_VALUE, &link) != ERROR_SUCCESS)
    return;
  if (ntDeleteKey) ntDeleteKey(link);
  ::RegCloseKey(link);
}

void CreateLink(HKEY root, const std::wstring& path, const std::wstring& target) {
  const size_t slash = path.rfind(L'\\');
  if (slash != std::wstring::npos) ::RegCloseKey(CreateKeyUnder(root, path.substr(0, slash)));
  HKEY link = nullptr;
  Check(::RegCreateKeyExW(root, path.c_str(), 0, nullptr, REG_OPTION_CREATE_LINK | REG_OPTION_VOLATILE,
                          KEY_ALL_ACCESS | KEY_CREATE_LINK, nullptr, &link, nullptr),
        "RegCreateKeyExW(link)");
  const LSTATUS status =
      ::RegSetValueExW(link, L"SymbolicLinkValue", 0, REG_LINK, reinterpret_cast<const BYTE*>(target.data()),
                       static_cast<DWORD>(target.size() * sizeof(wchar_t)));
  ::RegCloseKey(link);
  Check(status, "RegSetValueExW(link)");
}

// Every sandbox links the same few keys; removing them before a tree delete
// keeps the delete inside the sandbox.
const std::vector<std::wstring>& KnownLinks() {
  static const std::vector<std::wstring> links = {L"Software\\Microsoft\\Cryptography"};
  return links;
}

void DeleteScratchTree(const std::wstring& scratchPath, const std::vector<std::wstring>& links) {
  for (const auto& link : links) DeleteLink(HKEY_CURRENT_USER, scratchPath + L"\\HKLM\\" + link);
  for (const auto& link : KnownLinks()) DeleteLink(HKEY_CURRENT_USER, scratchPath + L"\\HKLM\\" + link);
  ::RegDeleteTreeW(HKEY_CURRENT_USER, scratchPath.c_str());
  ::RegDeleteKeyW(HKEY_CURRENT_USER, scratchPath.c_str());
}

void PurgeStaleSandboxes() {
  HKEY root = nullptr;
  if (::RegOpenKeyExW(HKEY_CURRENT_USER, kSandboxRoot, 0, KEY_READ, &root) != ERROR_SUCCESS) return;
  std::vector<std::wstring> stale;
  const long long now = static_cast<long long>(std::time(nullptr));
  wchar_t name[256];
  for (DWORD i = 0;; ++i) {
    DWORD length = 256;
    if (::RegEnumKeyExW(root, i, name, &length, nullptr, nullptr, nullptr, nullptr) != ERROR_SUCCESS) break;
    const long long stamp = _wtoi64(name);  // names start with the creation time in seconds
    if (stamp > 0 && now - stamp > kStaleSeconds) stale.emplace_back(name);
  }
  ::RegCloseKey(root);
  for (const auto& key : stale) DeleteScratchTree(std::wstring(kSandboxRoot) + L"\\" + key, {});
}

std::wstring NewGuidText() {
  GUID guid{};
  ::CoCreateGuid(&guid);
  wchar_t text[64] = {};
  ::StringFromGUID2(guid, text, 64);
  return text;
}

}  // namespace

RegistrySandbox::ScratchTree::ScratchTree(std::vector<std::wstring> linkedHklmKeys) : links(std::move(linkedHklmKeys)) {
  PurgeStaleSandboxes();
  path = std::wstring(kSandboxRoot) + L"\\" + std::to_wstring(static_cast<long long>(std::time(nullptr))) + L"-" +
         std::to_wstring(::GetCurrentProcessId()) + L"-" + NewGuidText();
}

RegistrySandbox::ScratchTree::~ScratchTree() { DeleteScratchTree(path, links); }

RegistrySandbox::ScratchKey::ScratchKey(const std::wstring& path, const std::vector<std::wstring>& links)
    : key(CreateKeyUnder(HKEY_CURRENT_USER, path)) {
  try {
    for (const auto& link : links) CreateLink(key, link, L"\\Registry\\Machine\\" + link);
  } catch (...) {
    ::RegCloseKey(key);
    throw;
  }
}

RegistrySandbox::ScratchKey::~ScratchKey() { ::RegCloseKey(key); }

RegistrySandbox::HiveOverride::HiveOverride(HKEY hiveToRedirect, HKEY scratch, const char* what)
    : hive(hiveToRedirect) {
  Check(::RegOverridePredefKey(hive, scratch), what);
}

RegistrySandbox::HiveOverride::~HiveOverride() { ::RegOverridePredefKey(hive, nullptr); }

RegistrySandbox::RegistrySandbox(std::vector<std::wstring> linkedHklmKeys)
    : tree_(std::move(linkedHklmKeys)),
      hklm_(tree_.path + L"\\HKLM", tree_.links),
      hkcu_(tree_.path + L"\\HKCU", {}),
      hklmOverride_(HKEY_LOCAL_MACHINE, hklm_.key, "RegOverridePredefKey(HKLM)"),
      hkcuOverride_(HKEY_CURRENT_USER, hkcu_.key, "RegOverridePredefKey(HKCU)") {}

void RegistrySandbox::SetRaw(HKEY root, const std::wstring& subkey, const std::wstring& name, DWORD type,
                             const void* data, DWORD size) {
  HKEY key = CreateKeyUnder(root, subkey);
  const LSTATUS status = ::RegSetValueExW(key, name.c_str(), 0, type, static_cast<const BYTE*>(data), size);
  ::RegCloseKey(key);
  Check(status, "RegSetValueExW");
}

void RegistrySandbox::SetString(HKEY root, const std::wstring& subkey, const std::wstring& name,
                                const std::wstring& value, DWORD type) {
  SetRaw(root, subkey, name, type, value.c_str(), static_cast<DWORD>((value.size() + 1) * sizeof(wchar_t)));
}

void RegistrySandbox::SetDword(HKEY root, const std::wstring& subkey, const std::wstring& name, DWORD value) {
  SetRaw(root, subkey, name, REG_DWORD, &value, sizeof(value));
}

void RegistrySandbox::CreateKey(HKEY root, const std::wstring& subkey) { ::RegCloseKey(CreateKeyUnder(root, subkey)); }

void RegistrySandbox::DeleteKey(HKEY root, const std::wstring& subkey) {
  ::RegDeleteTreeW(root, subkey.c_str());
  ::RegDeleteKeyW(root, subkey.c_str());
}

bool RegistrySandbox::ValueExists(HKEY root, const std::wstring& subkey, const std::wstring& name) {
  return ::RegGetValueW(root, subkey.c_str(), name.c_str(), RRF_RT_ANY, nullptr, nullptr, nullptr) == ERROR_SUCCESS;
}

bool RedirectToSandbox(const std::wstring& scratchKeyPath) {
  HKEY hklm = nullptr;
  HKEY hkcu = nullptr;
  if (::RegOpenKeyExW(HKEY_CURRENT_USER, (scratchKeyPath + L"\\HKLM").c_str(), 0, KEY_ALL_ACCESS, &hklm) != 0)
    return false;
  if (::RegOpenKeyExW(HKEY_CURRENT_USER, (scratchKeyPath + L"\\HKCU").c_str(), 0, KEY_ALL_ACCESS, &hkcu) != 0) {
    ::RegCloseKey(hklm);
    return false;
  }
  const bool ok = ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, hklm) == ERROR_SUCCESS &&
                  ::RegOverridePredefKey(HKEY_CURRENT_USER, hkcu) == ERROR_SUCCESS;
  ::RegCloseKey(hklm);
  ::RegCloseKey(hkcu);
  return ok;
}

void WriteInstallEntry(const std::wstring& installPath, const std::wstring& version,
                       std::optional<DWORD> enableOverride) {
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", installPath);
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", version);
  if (enableOverride)
    RegistrySandbox::SetDword(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"EnablePathOverride", *enableOverride);
}

std::wstring WriteCompleteInstall(const ScratchDir& dir, const std::wstring& name, const std::wstring& version,
                                  std::optional<DWORD> enableOverride) {
  const std::wstring installPath = dir.MakeDir(name);
  dir.MakeDir(name + L"\\" + version);
  WriteInstallEntry(installPath, version, enableOverride);
  return installPath + L"\\" + version;
}

}  // namespace ambrel::test
