#include "diagnose/SdkExports.h"

#include <windows.h>

#include <algorithm>

#include "diagnose/PeImage.h"

namespace ambrel::diagnose {
namespace {

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

// The headers' account of the image: where its section table lies and its
// export data directory (all zero when it declares none).
struct ImageLayout {
  Sections sections;
  IMAGE_DATA_DIRECTORY exports{};
};

// The export entry of an optional header (32- or 64-bit) at `offset`; all
// zero when the header is cut short or has no such entry.
template <typename OptionalHeader>
IMAGE_DATA_DIRECTORY ExportDirectoryIn(const Bytes& bytes, std::size_t offset) {
  OptionalHeader header{};
  if (!ReadAt(bytes, offset, header) || header.NumberOfRvaAndSizes <= IMAGE_DIRECTORY_ENTRY_EXPORT) return {};
  return header.DataDirectory[IMAGE_DIRECTORY_ENTRY_EXPORT];
}

// The DOS, NT and optional headers; nullopt when they do not make a PE image.
std::optional<ImageLayout> ReadLayout(const Bytes& bytes) {
  const std::optional<PeHeaders> headers = ReadPeHeaders(bytes);
  if (!headers) return std::nullopt;
  const std::size_t optional = headers->optionalHeader;
  WORD magic = 0;
  if (!ReadAt(bytes, optional, magic)) return std::nullopt;

  ImageLayout layout{{optional + headers->file.SizeOfOptionalHeader, headers->file.NumberOfSections}, {}};
  if (magic == IMAGE_NT_OPTIONAL_HDR64_MAGIC) {
    layout.exports = ExportDirectoryIn<IMAGE_OPTIONAL_HEADER64>(bytes, optional);
  } else if (magic == IMAGE_NT_OPTIONAL_HDR32_MAGIC) {
    layout.exports = ExportDirectoryIn<IMAGE_OPTIONAL_HEADER32>(bytes, optional);
  } else {
    return std::nullopt;
  }
  return layout;
}

// The names of the export directory at `directoryRva`; nullopt when a part
// of it lies outside the file.
std::optional<std::set<std::string>> ReadNames(const Bytes& bytes, const Sections& sections, DWORD directoryRva) {
  const auto directoryOffset = FileOffsetOf(bytes, sections, directoryRva);
  IMAGE_EXPORT_DIRECTORY directory{};
  if (!directoryOffset || !ReadAt(bytes, *directoryOffset, directory)) return std::nullopt;
  std::set<std::string> names;
  if (directory.NumberOfNames == 0) return names;
  const auto nameTable = FileOffsetOf(bytes, sections, directory.AddressOfNames);
  if (!nameTable) return std::nullopt;
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

}  // namespace

std::optional<std::set<std::string>> ReadExportNames(const std::wstring& file) {
  const std::optional<Bytes> bytes = ReadFileBytes(file);
  if (!bytes) return std::nullopt;
  const std::optional<ImageLayout> layout = ReadLayout(*bytes);
  if (!layout) return std::nullopt;
  if (layout->exports.VirtualAddress == 0 || layout->exports.Size == 0) return std::set<std::string>{};
  return ReadNames(*bytes, layout->sections, layout->exports.VirtualAddress);
}

}  // namespace ambrel::diagnose
