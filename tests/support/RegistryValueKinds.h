// Registry values in the malformed shapes a registry can really hold, for the
// tables of bad input: text without its terminator, text stored under another
// type, raw bytes of a chosen length. Paths of an exact length are made in a
// scratch folder. Everything goes through the sandboxed hives.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "tests/support/TestSupport.h"

namespace ambrel::test {

// A value as it is written: its type and its exact bytes; `absent` writes nothing.
struct RawValue {
  bool absent = false;
  DWORD type = REG_SZ;
  std::string bytes;
};

inline RawValue Absent() { return {true, REG_NONE, {}}; }

// UTF-16 text with its terminator (or without), under `type`.
inline RawValue Text(const std::wstring& text, DWORD type = REG_SZ, bool terminated = true) {
  const size_t units = text.size() + (terminated ? 1 : 0);
  std::string bytes(reinterpret_cast<const char*>(text.c_str()), units * sizeof(wchar_t));
  return {false, type, bytes};
}

inline RawValue Bytes(DWORD type, std::string bytes) { return {false, type, std::move(bytes)}; }

inline RawValue Dword(DWORD value) {
  return {false, REG_DWORD, std::string(reinterpret_cast<const char*>(&value), sizeof value)};
}

inline void WriteValue(HKEY root, const std::wstring& key, const std::wstring& name, const RawValue& value) {
  if (value.absent) {
    RegistrySandbox::CreateKey(root, key);
    return;
  }
  RegistrySandbox::SetRaw(root, key, name, value.type, value.bytes.data(), static_cast<DWORD>(value.bytes.size()));
}

// A folder path of exactly `length` characters below `dir` (created when
// asked); its last component is padded with 'p'.
inline std::wstring PathOfExactLength(const ScratchDir& dir, size_t length, bool create = true) {
  std::wstring path = dir.path() + L"\\";
  path += std::wstring(length - path.size(), L'p');
  if (create) dir.MakeDir(path.substr(dir.path().size() + 1));
  return path;
}

// Replaces every "{dir}" in `text` with `dir`.
inline std::wstring WithDir(std::wstring text, const std::wstring& dir) {
  for (size_t at = text.find(L"{dir}"); at != std::wstring::npos; at = text.find(L"{dir}", at + dir.size()))
    text.replace(at, 5, dir);
  return text;
}

}  // namespace ambrel::test
