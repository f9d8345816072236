#include "diagnose/SdkExports.h"

#include <windows.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace ambrel::diagnose {
namespace {

using Bytes = std::vector<unsigned char>;

template <typename T>
bool ReadAt(const Bytes& bytes, std::size_t offset, T& out) {
  if (offset > bytes.size() || bytes.size() - offset < sizeof(T)) return false;
  std::memcpy(&out, bytes.data() + offset, sizeof(T));
  return true;
}

struct Sections {
  std::size_t first = 0;  // offset of the first section header
  WORD count = 0;
};

// The file offset of a relative virtual address, through the section that holds it.
std::optional<std::size_t> FileOffsetOf(const Bytes& bytes, const Sections& sections, DWORD rva) {
  for (WORD i = 0; i < sections.count; ++i) {
    IMAGE_SECTION_HEADER header{};
    if (!ReadAt(bytes, sections.first + i * sizeof header, header)) return std::nullopt;
    const DWORD size = header.SizeOfRawData > header.Misc.VirtualSize ? header.SizeOfRawData : header.Misc.VirtualSize;
    if (rva >= header.VirtualAddress && rva - header.VirtualAddress < size) {
      return std::size_t{header.PointerToRawData} + (rva - header.VirtualAddress);
    }
  }
  return std::nullopt;
}

}  // namespace

std::optional<std::set<std::string>> ReadExportNames(const std::wstring& file) {
  std::ifstream in(std::filesystem::path(file), std::ios::binary);
  if (!in) return std::nullopt;
  const Bytes bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());

  IMAGE_DOS_HEADER dos{};
  if (!ReadAt(bytes, 0, dos) || dos.e_magic != IMAGE_DOS_SIGNATURE) return std::nullopt;
  const std::size_t nt = static_cast<std::size_t>(dos.e_lfanew);
  DWORD signature = 0;
  IMAGE_FILE_HEADER fileHeader{};
  if (!ReadAt(bytes, nt, signature) || signature != IMAGE_NT_SIGNATURE) return std::nullopt;
  if (!ReadAt(bytes, nt + sizeof signature, fileHeader)) return std::nullopt;
  const std::size_t optional = nt + sizeof signature + sizeof fileHeader;
  WORD magic = 0;
  if (!ReadAt(bytes, optional, magic)) return std::nullopt;

  IMAGE_DATA_DIRECTORY exports{};
  if (magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
    IMAGE_OPTIONAL_HEADER64 header{};
    if (!ReadAt(bytes, optional, header) || header.NumberOfRvaAndSizes <= IMAGE_DIRECTORY_ENTRY_EXPORT)
      return std::set<std::string>{};
    exports = header.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  } else if (magic == IMAGE_NT_OPTIONAL_HDR32_MAGIC) {
    IMAGE_OPTIONAL_HEADER32 header{};
    if (!ReadAt(bytes, optional, header) || header.NumberOfRvaAndSizes <= IMAGE_DIRECTORY_ENTRY_EXPORT)
      return std::set<std::string>{};
    exports = header.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
  } else {
    return std::nullopt;
  }
  std::set<std::string> names;
  if (exports.VirtualAddress == 0 || exports.Size == 0) return names;

  const Sections sections{optional + fileHeader.SizeOfOptionalHeader, fileHeader.NumberOfSections};
  const auto directoryOffset = FileOffsetOf(bytes, sections, exports.VirtualAddress);
  IMAGE_EXPORT_DIRECTORY directory{};
  if (!directoryOffset || !ReadAt(bytes, *directoryOffset, directory)) return std::nullopt;
  const auto nameTable = FileOffsetOf(bytes, sections, directory.AddressOfNames);
  if (directory.NumberOfNames > 0 && !nameTable) return std::nullopt;
  for (DWORD i = 0; i < directory.NumberOfNames; ++i) {
    DWORD nameRva = 0;
    if (!ReadAt(bytes, *nameTable + i * sizeof nameRva, nameRva)) return std::nullopt;
    const auto nameOffset = FileOffsetOf(bytes, sections, nameRva);
    if (!nameOffset || *nameOffset >= bytes.size()) return std::nullopt;
    const auto begin = bytes.begin() + static_cast<std::ptrdiff_t>(*nameOffset);
    const auto end = std::find(begin, bytes.end(), '\0');
    names.emplace(begin, end);
  }
  return names;
}

}  // namespace ambrel::diagnose
