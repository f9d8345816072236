#include "common/TextConvert.h"

#include <climits>
#include <cwchar>
#include <stdexcept>
#include <system_error>

#include "common/SystemError.h"

namespace ambrel {
namespace {

int CheckedLength(size_t size) {
  if (size > static_cast<size_t>(INT_MAX)) throw std::length_error("text too long to convert");
  return static_cast<int>(size);
}

}  // namespace

std::string WideToCodePage(std::wstring_view text, UINT codePage) {
  if (text.empty()) return {};
  const int inLength = CheckedLength(text.size());
  const int needed = ::WideCharToMultiByte(codePage, 0, text.data(), inLength, nullptr, 0, nullptr, nullptr);
  if (needed <= 0) return {};
  std::string out(static_cast<size_t>(needed), '\0');
  const int written = ::WideCharToMultiByte(codePage, 0, text.data(), inLength, out.data(), needed, nullptr, nullptr);
  out.resize(written > 0 ? static_cast<size_t>(written) : 0);
  return out;
}

std::string WideToCodePageInDoubleLength(const wchar_t* text, UINT codePage) {
  if (text == nullptr) return {};
  const size_t length = std::wcslen(text);
  const size_t capacity = 2 * length + 1;
  const int byteCapacity = CheckedLength(capacity);
  std::string out(capacity, '\0');
  if (::WideCharToMultiByte(codePage, 0, text, -1, out.data(), byteCapacity, nullptr, nullptr) == 0) return {};
  // A successful conversion of the whole input includes its NUL.
  out.resize(out.find('\0'));
  return out;
}

std::wstring CodePageToWide(std::string_view text, UINT codePage) {
  if (text.empty()) return {};
  const int inLength = CheckedLength(text.size());
  const int needed = ::MultiByteToWideChar(codePage, 0, text.data(), inLength, nullptr, 0);
  if (needed <= 0) return {};
  std::wstring out(static_cast<size_t>(needed), L'\0');
  const int written = ::MultiByteToWideChar(codePage, 0, text.data(), inLength, out.data(), needed);
  out.resize(written > 0 ? static_cast<size_t>(written) : 0);
  return out;
}

std::wstring WidenBytes(std::string_view text) {
  std::wstring out;
  out.reserve(text.size());
  for (const char byte : text) out.push_back(static_cast<wchar_t>(static_cast<short>(static_cast<signed char>(byte))));
  return out;
}

std::wstring FileNameToWide(std::string_view name) {
  if (name.empty()) return {};
  const UINT codePage = ::AreFileApisANSI() ? CP_ACP : CP_OEMCP;
  const int inLength = CheckedLength(name.size());
  const int needed = ::MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, name.data(), inLength, nullptr, 0);
  if (needed <= 0) throw std::system_error(MakeWindowsError(::GetLastError()), "file name");
  std::wstring out(static_cast<size_t>(needed), L'\0');
  if (::MultiByteToWideChar(codePage, MB_ERR_INVALID_CHARS, name.data(), inLength, out.data(), needed) != needed)
    throw std::system_error(MakeWindowsError(::GetLastError()), "file name");
  return out;
}

}  // namespace ambrel
