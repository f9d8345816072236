// The environment guard: variables set for a test and put back after it.
#include "tests/sandbox/Sandbox.h"

#include <cstdio>
#include <cstdlib>

namespace ambrel::test {

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

}  // namespace ambrel::test
