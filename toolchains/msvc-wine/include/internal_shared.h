// Stands in for the Visual C++ runtime sources' <internal_shared.h>, which
// Microsoft's STL sources include, with what the one source compiled here,
// stl/src/filesystem.cpp (a static part of MSVC's import library), takes from
// it, and the Windows SDK items of Windows 10 and 11 it uses that Wine 8's
// headers lack. Test build only.
#pragma once
#include <stdlib.h>
#include <windows.h>

// A heap block owned with the C runtime's free.
template <class T>
class __crt_unique_heap_ptr {
 public:
  __crt_unique_heap_ptr() noexcept = default;
  __crt_unique_heap_ptr(const __crt_unique_heap_ptr&) = delete;
  __crt_unique_heap_ptr& operator=(const __crt_unique_heap_ptr&) = delete;
  ~__crt_unique_heap_ptr() { free(block_); }
  __crt_unique_heap_ptr& operator=(T* block) noexcept {
    free(block_);
    block_ = block;
    return *this;
  }
  explicit operator bool() const noexcept { return block_ != nullptr; }
  T* get() const noexcept { return block_; }

 private:
  T* block_ = nullptr;
};
#define _malloc_crt_t(type, count) static_cast<type*>(malloc(sizeof(type) * (count)))

extern "C" {
_ACRTIMP unsigned int __cdecl ___lc_codepage_func(void);
WINBASEAPI DWORD WINAPI GetTempPath2W(DWORD, LPWSTR);
}

typedef struct _FILE_ID_INFO {
  ULONGLONG VolumeSerialNumber;
  struct {
    BYTE Identifier[16];
  } FileId;
} FILE_ID_INFO, *PFILE_ID_INFO;

typedef struct _FILE_DISPOSITION_INFO_EX {
  DWORD Flags;
} FILE_DISPOSITION_INFO_EX, *PFILE_DISPOSITION_INFO_EX;

#ifndef SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE
#define SYMBOLIC_LINK_FLAG_ALLOW_UNPRIVILEGED_CREATE 0x2
#endif
#define FILE_DISPOSITION_FLAG_DO_NOT_DELETE 0x00000000
#define FILE_DISPOSITION_FLAG_DELETE 0x00000001
#define FILE_DISPOSITION_FLAG_POSIX_SEMANTICS 0x00000002
#define FILE_DISPOSITION_FLAG_FORCE_IMAGE_SECTION_CHECK 0x00000004
#define FILE_DISPOSITION_FLAG_ON_CLOSE 0x00000008
#define FILE_DISPOSITION_FLAG_IGNORE_READONLY_ATTRIBUTE 0x00000010

static_assert(sizeof(FILE_ID_INFO) == 24, "FILE_ID_INFO is 24 bytes");
