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

// Replaces in `text` every "{dir}" with the scratch folder, and "{p129}" and
// "{p130}" with folders below it whose paths have exactly that many characters.
inline std::wstring ExpandPlaceholders(std::wstring text, const ScratchDir& dir) {
  auto replace = [&text](const std::wstring& token, const std::wstring& by) {
    for (size_t at = text.find(token); at != std::wstring::npos; at = text.find(token, at + by.size()))
      text.replace(at, token.size(), by);
  };
  replace(L"{p129}", PathOfExactLength(dir, 129, false));
  replace(L"{p130}", PathOfExactLength(dir, 130, false));
  replace(L"{dir}", dir.path());
  return text;
}

// A row's value: absent, text (with placeholders) or raw bytes.
struct ValueShape {
  enum Kind { kAbsent, kText, kRaw } kind = kAbsent;
  DWORD type = REG_SZ;
  std::wstring text;
  bool terminated = true;
  std::string raw;
};
inline ValueShape Missing() { return {}; }
inline ValueShape Sz(std::wstring text, DWORD type = REG_SZ, bool terminated = true) {
  return {ValueShape::kText, type, std::move(text), terminated, {}};
}
inline ValueShape Raw(DWORD type, std::string bytes) { return {ValueShape::kRaw, type, {}, true, std::move(bytes)}; }
inline std::string DwordBytes(DWORD value) { return std::string(reinterpret_cast<const char*>(&value), sizeof value); }

inline void WriteShape(HKEY root, const std::wstring& key, const std::wstring& name, const ValueShape& shape,
                       const ScratchDir& dir) {
  switch (shape.kind) {
    case ValueShape::kAbsent: WriteValue(root, key, name, Absent()); break;
    case ValueShape::kText:
      WriteValue(root, key, name, Text(ExpandPlaceholders(shape.text, dir), shape.type, shape.terminated));
      break;
    case ValueShape::kRaw: WriteValue(root, key, name, Bytes(shape.type, shape.raw)); break;
  }
}

// Creates each folder (placeholders allowed; all below `dir`).
inline void MakeFolders(const ScratchDir& dir, const std::vector<std::wstring>& folders) {
  for (const auto& folder : folders) dir.MakeDir(ExpandPlaceholders(folder, dir).substr(dir.path().size() + 1));
}

}  // namespace ambrel::test
