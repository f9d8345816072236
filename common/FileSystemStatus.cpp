#include "common/FileSystemStatus.h"

#include <filesystem>

#include "common/SystemError.h"
#include "common/WinResource.h"

namespace ambrel {
namespace {

[[noreturn]] void ThrowFileSystemError(const char* operation, const std::wstring& path, const std::error_code& ec) {
  throw std::filesystem::filesystem_error(operation, std::filesystem::path(path), ec);
}

PathStatus StatusOrThrow(const char* operation, const std::wstring& path) {
  std::error_code ec;
  const PathStatus status = QueryPathStatus(path, ec);
  if (ec) ThrowFileSystemError(operation, path, ec);
  return status;
}

}  // namespace

bool IsNotFoundError(DWORD error) noexcept {
  return error == ERROR_FILE_NOT_FOUND || error == ERROR_PATH_NOT_FOUND || error == ERROR_BAD_NETPATH ||
         error == ERROR_INVALID_NAME;
}

PathStatus QueryPathStatus(const std::wstring& path, std::error_code& ec) noexcept {
  // Value 0 of the Windows category rather than clear(): its message() is then
  // the system's own text for "no error" on every toolchain.
  ec = MakeWindowsError(ERROR_SUCCESS);
  auto fail = [&ec](DWORD error) {
    if (!IsNotFoundError(error)) ec = MakeWindowsError(error);
    return PathStatus{};
  };

  WIN32_FILE_ATTRIBUTE_DATA data{};
  if (!::GetFileAttributesExW(path.c_str(), GetFileExInfoStandard, &data)) return fail(::GetLastError());
  DWORD attributes = data.dwFileAttributes;

  if (attributes & FILE_ATTRIBUTE_REPARSE_POINT) {
    // A link: what counts is its target, so open through it.
    const UniqueFileHandle target(::CreateFileW(path.c_str(), FILE_READ_ATTRIBUTES,
                                                FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, nullptr,
                                                OPEN_EXISTING, FILE_FLAG_BACKUP_SEMANTICS, nullptr));
    if (!target) return fail(::GetLastError());
    BY_HANDLE_FILE_INFORMATION info{};
    if (!::GetFileInformationByHandle(target.get(), &info)) return fail(::GetLastError());
    attributes = info.dwFileAttributes;
  }
  return PathStatus{true, (attributes & FILE_ATTRIBUTE_DIRECTORY) != 0};
}

bool PathExists(const std::wstring& path, std::error_code& ec) noexcept { return QueryPathStatus(path, ec).exists; }

bool PathExists(const std::wstring& path) { return StatusOrThrow("exists", path).exists; }

bool IsExistingDirectory(const std::wstring& path) { return StatusOrThrow("status", path).isDirectory; }

}  // namespace ambrel
