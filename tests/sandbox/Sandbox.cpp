#include "tests/sandbox/Sandbox.h"

#include <objbase.h>

#include <atomic>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace ambrel::test {
namespace {

constexpr wchar_t kSandboxRoot[] = L"Software\\AmbrelTestSandbox";
constexpr long long kStaleSeconds = 6 * 3600;

std::atomic<unsigned> g_counter{0};

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

std::wstring TestBinDirectory() {
  wchar_t buffer[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, buffer, MAX_PATH);
  return std::filesystem::path(buffer).parent_path().wstring();
}

void CopyRuntimeDllsTo(const std::wstring& folder) {
  // AMBREL_RUNTIME_DLL_NAMES: the names, separated by '|'.
  const std::wstring names = AMBREL_RUNTIME_DLL_NAMES;
  size_t start = 0;
  while (start < names.size()) {
    size_t end = names.find(L'|', start);
    if (end == std::wstring::npos) end = names.size();
    const std::wstring name = names.substr(start, end - start);
    std::filesystem::create_directories(folder);
    std::filesystem::copy_file(TestBinDirectory() + L"\\" + name, std::filesystem::path(folder) / name,
                               std::filesystem::copy_options::overwrite_existing);
    start = end + 1;
  }
}

std::string Narrow(const std::wstring& text) {
  if (text.empty()) return {};
  const int size = ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0, nullptr,
                                         nullptr);
  std::string out(static_cast<size_t>(size), '\0');
  ::WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size, nullptr, nullptr);
  return out;
}

std::wstring Widen(const std::string& text) {
  if (text.empty()) return {};
  const int size = ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), nullptr, 0);
  std::wstring out(static_cast<size_t>(size), L'\0');
  ::MultiByteToWideChar(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), out.data(), size);
  return out;
}

// ---- RegistrySandbox ----

RegistrySandbox::ScratchTree::ScratchTree(std::vector<std::wstring> linkedHklmKeys)
    : links(std::move(linkedHklmKeys)) {
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

void RegistrySandbox::DeleteKey(HKEY root, const std::wstring& subkey) { ::RegDeleteTreeW(root, subkey.c_str());
  ::RegDeleteKeyW(root, subkey.c_str()); }

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

// ---- ScratchDir ----

ScratchDir::ScratchDir(const std::wstring& parent) {
  std::wstring base = parent;
  if (base.empty()) {
    wchar_t temp[MAX_PATH] = {};
    ::GetTempPathW(MAX_PATH, temp);
    base = temp;
  }
  if (!base.empty() && base.back() != L'\\' && base.back() != L'/') base += L'\\';
  path_ = base + L"ambrel-" + std::to_wstring(::GetCurrentProcessId()) + L"-" + std::to_wstring(++g_counter) + L"-" +
          std::to_wstring(::GetTickCount64());
  std::filesystem::create_directories(path_);
}

ScratchDir::~ScratchDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

std::wstring ScratchDir::WriteFile(const std::wstring& name, const std::string& bytes) const {
  const std::filesystem::path file = std::filesystem::path(path_) / name;
  std::filesystem::create_directories(file.parent_path());
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  return file.wstring();
}

std::wstring ScratchDir::MakeDir(const std::wstring& name) const {
  const std::filesystem::path dir = std::filesystem::path(path_) / name;
  std::filesystem::create_directories(dir);
  return dir.wstring();
}

// ---- the shared-components entry ----

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

// ---- EnvGuard ----

EnvGuard::EnvGuard(std::initializer_list<const wchar_t*> names) {
  for (const wchar_t* name : names) Remember(name);
}

EnvGuard::~EnvGuard() {
  for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
    _wputenv_s(it->first.c_str(), it->second ? it->second->c_str() : L"");
    ::SetEnvironmentVariableW(it->first.c_str(), it->second ? it->second->c_str() : nullptr);
  }
}

std::optional<std::wstring> EnvGuard::Get(const std::wstring& name) {
  size_t required = 0;
  // The size query answers 0 on Windows but ERANGE with Wine's runtime.
  const errno_t query = _wgetenv_s(&required, nullptr, 0, name.c_str());
  if ((query != 0 && query != ERANGE) || required == 0) return std::nullopt;
  std::wstring value(required, L'\0');
  if (_wgetenv_s(&required, value.data(), value.size(), name.c_str()) != 0) return std::nullopt;
  value.resize(required ? required - 1 : 0);
  return value;
}

void EnvGuard::Remember(const std::wstring& name) {
  for (const auto& entry : saved_)
    if (_wcsicmp(entry.first.c_str(), name.c_str()) == 0) return;
  saved_.emplace_back(name, Get(name));
}

std::optional<std::wstring> EnvGuard::Kept(const std::wstring& value) {
  EnvGuard probe{L"AMBREL_PROBE_VALUE"};
  if (_wputenv_s(L"AMBREL_PROBE_VALUE", value.c_str()) != 0) return std::nullopt;
  return Get(L"AMBREL_PROBE_VALUE");
}

std::wstring PathListOfLength(size_t length) {
  std::wstring list;
  for (int i = 1; list.size() < length; ++i) {
    wchar_t entry[16];
    swprintf(entry, 16, L"E%05d;", i);
    list += entry;
  }
  list.resize(length);
  return list;
}

void EnvGuard::Set(const std::wstring& name, const std::wstring& value) {
  Remember(name);
  _wputenv_s(name.c_str(), value.c_str());
  ::SetEnvironmentVariableW(name.c_str(), value.c_str());
}

void EnvGuard::Unset(const std::wstring& name) {
  Remember(name);
  _wputenv_s(name.c_str(), L"");
  ::SetEnvironmentVariableW(name.c_str(), nullptr);
}

// ---- LibraryCopy ----

LibraryCopy::LibraryCopy(const std::wstring& parent, const std::vector<std::wstring>& companions) : dir_(parent) {
  const std::filesystem::path bin = TestBinDirectory();
  file_ = dir_.path() + L"\\Ambrel.dll";
  std::filesystem::copy_file(bin / L"Ambrel.dll", file_);
  for (const auto& companion : companions)
    std::filesystem::copy_file(bin / companion, std::filesystem::path(dir_.path()) / companion);
  module_ = ::LoadLibraryW(file_.c_str());
  if (!module_) throw std::runtime_error("LoadLibraryW of the Ambrel.dll copy failed: " + std::to_string(::GetLastError()));
}

LibraryCopy::~LibraryCopy() {
  if (module_) ::FreeLibrary(module_);
}

// ---- files ----

std::string ReadFileBytes(const std::wstring& path) {
  std::ifstream in(std::filesystem::path(path), std::ios::binary);
  if (!in) return {};
  return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::vector<std::string> SplitLines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

}  // namespace ambrel::test
