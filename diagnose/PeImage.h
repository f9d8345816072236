// Reading a PE file's headers from its bytes, without mapping it: the
// installer SDK's file is judged, never loaded for execution.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace ambrel::diagnose {

using Bytes = std::vector<unsigned char>;

// A T copied from `offset`; false when the bytes end before it does.
template <typename T>
bool ReadAt(const Bytes& bytes, std::size_t offset, T& out) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
  std::memcpy(&out, bytes.data() + offset, sizeof(T));
  return true;
}

// The whole file; nullopt when it cannot be read.
std::optional<Bytes> ReadFileBytes(const std::wstring& file);

struct PeHeaders {
  IMAGE_FILE_HEADER file{};
  std::size_t optionalHeader = 0;  // offset of the optional header
};

// The DOS stub's pointer, the NT signature and the file header; nullopt when
// they do not make a PE file.
std::optional<PeHeaders> ReadPeHeaders(const Bytes& bytes);

// The machine the file's code is built for (IMAGE_FILE_MACHINE_*), or nullopt
// when the file is not a readable PE file.
std::optional<WORD> ReadImageMachine(const std::wstring& file);

// The machine of this process's executable: the host's kind, since a host
// loads only DLLs built for its own machine.
WORD ThisProcessMachine();

// "x64", "x86", "ARM64", "ARM", or "unknown".
const char* MachineName(WORD machine);

}  // namespace ambrel::diagnose
