#include "diagnose/PeImage.h"

#include <filesystem>
#include <fstream>
#include <iterator>

namespace ambrel::diagnose {

std::optional<Bytes> ReadFileBytes(const std::wstring& file) {
  std::ifstream in(std::filesystem::path(file), std::ios::binary);
  if (!in) return std::nullopt;
  return Bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
}

std::optional<PeHeaders> ReadPeHeaders(const Bytes& bytes) {
  IMAGE_DOS_HEADER dos{};
  if (!ReadAt(bytes, 0, dos) || dos.e_magic != IMAGE_DOS_SIGNATURE || dos.e_lfanew < 0) return std::nullopt;
  const std::size_t nt = static_cast<std::size_t>(dos.e_lfanew);
  DWORD signature = 0;
  PeHeaders headers;
  if (!ReadAt(bytes, nt, signature) || signature != IMAGE_NT_SIGNATURE) return std::nullopt;
  if (!ReadAt(bytes, nt + sizeof signature, headers.file)) return std::nullopt;
  headers.optionalHeader = nt + sizeof signature + sizeof headers.file;
  return headers;
}

std::optional<WORD> ReadImageMachine(const std::wstring& file) {
  const std::optional<Bytes> bytes = ReadFileBytes(file);
  if (!bytes) return std::nullopt;
  const std::optional<PeHeaders> headers = ReadPeHeaders(*bytes);
  if (!headers) return std::nullopt;
  return headers->file.Machine;
}

WORD ThisProcessMachine() {
  const auto* base = reinterpret_cast<const unsigned char*>(::GetModuleHandleW(nullptr));
  const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(base);
  const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS*>(base + dos->e_lfanew);
  return nt->FileHeader.Machine;
}

const char* MachineName(WORD machine) {
  switch (machine) {
    case IMAGE_FILE_MACHINE_AMD64: return "x64";
    case IMAGE_FILE_MACHINE_I386: return "x86";
    case IMAGE_FILE_MACHINE_ARM64: return "ARM64";
    case IMAGE_FILE_MACHINE_ARMNT: return "ARM";
    default: return "unknown";
  }
}

}  // namespace ambrel::diagnose
