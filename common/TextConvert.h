// Conversions between UTF-16 and narrow text, in one place.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace ambrel {

// WideCharToMultiByte / MultiByteToWideChar with flags 0: size, then fill.
std::string WideToCodePage(std::wstring_view text, UINT codePage);
std::wstring CodePageToWide(std::string_view text, UINT codePage);

// Narrow form in a fixed budget: a NUL-terminated wide text converted with
// WideCharToMultiByte (flags 0, no default character) into 2 x length + 1
// bytes, taken up to the first NUL. Null, or a text that does not fit the
// budget or fails to convert, gives "".
std::string WideToCodePageInDoubleLength(const wchar_t* text, UINT codePage);

inline std::string WideToUtf8(std::wstring_view text) { return WideToCodePage(text, CP_UTF8); }
inline std::wstring Utf8ToWide(std::string_view text) { return CodePageToWide(text, CP_UTF8); }

// Byte-by-byte widening by sign extension (0x80..0xFF become 0xFF80..0xFFFF):
// no code page is involved.
std::wstring WidenBytes(std::string_view text);

// A narrow file name as the file APIs read it: their code page (ANSI or OEM,
// which is UTF-8 when the process runs with that code page). Unlike the
// conversions above it does not guess: bytes the code page cannot convert
// raise std::system_error, a name of 2^31 bytes or more std::length_error.
std::wstring FileNameToWide(std::string_view name);

}  // namespace ambrel
