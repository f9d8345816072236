// One owner type per kind of Windows handle, all one template over the close
// function (UniqueAny). Each owner closes its handle once,
// on every path; put() hands out the slot for an out-parameter, release() gives
// the handle up on purpose (say why at the call site). Closing keeps the
// caller's GetLastError: an owner that goes out of scope between a failed call
// and the caller's look at its error must not replace it.
#pragma once

#include <windows.h>
#include <objbase.h>
#include <shtypes.h>
#include <wincrypt.h>

#include <utility>

namespace ambrel {

// The "none" value of a kind of handle: null (or zero), or
// INVALID_HANDLE_VALUE for files and snapshots.
struct NullIsNone {
  template <typename T>
  static constexpr T Value() noexcept {
    return T{};
  }
};
struct InvalidHandleIsNone {
  template <typename T>
  static T Value() noexcept {
    return INVALID_HANDLE_VALUE;
  }
};

// The owner of one handle of type T, closed by Close (a function taking the
// handle) unless it holds the kind's "none" value, in the shape of WIL's
// unique_any.
template <typename T, auto Close, typename None = NullIsNone>
class UniqueAny {
 public:
  using Type = T;

  static Type Invalid() noexcept { return None::template Value<Type>(); }

  UniqueAny() noexcept = default;
  explicit UniqueAny(Type value) noexcept : value_(value) {}
  ~UniqueAny() { reset(); }

  UniqueAny(const UniqueAny&) = delete;
  UniqueAny& operator=(const UniqueAny&) = delete;
  UniqueAny(UniqueAny&& other) noexcept : value_(other.release()) {}
  UniqueAny& operator=(UniqueAny&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  [[nodiscard]] Type get() const noexcept { return value_; }
  [[nodiscard]] bool valid() const noexcept { return value_ != Invalid(); }
  explicit operator bool() const noexcept { return valid(); }

  // Closes what is held and returns the empty slot for a function to fill.
  [[nodiscard]] Type* put() noexcept {
    reset();
    return &value_;
  }

  [[nodiscard]] Type release() noexcept { return std::exchange(value_, Invalid()); }

  void reset(Type value = Invalid()) noexcept {
    Type old = std::exchange(value_, value);
    if (old != Invalid()) {
      const DWORD error = ::GetLastError();
      Close(old);
      ::SetLastError(error);
    }
  }

 private:
  Type value_ = Invalid();
};

// Closes whose Windows function takes more than the handle, or returns one.
inline void FreeLocal(void* memory) noexcept { ::LocalFree(memory); }
inline void CloseCertStore(HCERTSTORE store) noexcept { ::CertCloseStore(store, 0); }

using UniqueRegKey = UniqueAny<HKEY, &::RegCloseKey>;
using UniqueModule = UniqueAny<HMODULE, &::FreeLibrary>;
// Kernel handles whose "none" value is null (events, processes, threads).
using UniqueHandle = UniqueAny<HANDLE, &::CloseHandle>;
// Kernel handles whose "none" value is INVALID_HANDLE_VALUE (files, snapshots).
using UniqueFileHandle = UniqueAny<HANDLE, &::CloseHandle, InvalidHandleIsNone>;
using UniqueDllDirectory = UniqueAny<DLL_DIRECTORY_COOKIE, &::RemoveDllDirectory>;
using UniqueCoTaskMem = UniqueAny<void*, &::CoTaskMemFree>;
// Blocks the system hands out with LocalAlloc (FormatMessageW's buffer).
using UniqueLocalMemory = UniqueAny<void*, &FreeLocal>;
// Shell item lists (ITEMIDLIST), which the shell allocates with the COM task allocator.
using UniqueItemList = UniqueAny<LPITEMIDLIST, &::CoTaskMemFree>;
// The block GetEnvironmentStringsW hands out.
using UniqueEnvironmentStrings = UniqueAny<wchar_t*, &::FreeEnvironmentStringsW>;
using UniqueCertStore = UniqueAny<HCERTSTORE, &CloseCertStore>;
using UniqueCryptMsg = UniqueAny<HCRYPTMSG, &::CryptMsgClose>;
using UniqueCertContext = UniqueAny<PCCERT_CONTEXT, &::CertFreeCertificateContext>;
using UniqueCertChainEngine = UniqueAny<HCERTCHAINENGINE, &::CertFreeCertificateChainEngine>;
using UniqueCertChain = UniqueAny<PCCERT_CHAIN_CONTEXT, &::CertFreeCertificateChain>;

// Owner of one COM interface pointer.
template <typename Interface>
class ComPtr {
 public:
  ComPtr() noexcept = default;
  ~ComPtr() { reset(); }
  ComPtr(const ComPtr&) = delete;
  ComPtr& operator=(const ComPtr&) = delete;
  ComPtr(ComPtr&& other) noexcept : ptr_(std::exchange(other.ptr_, nullptr)) {}
  ComPtr& operator=(ComPtr&& other) noexcept {
    if (this != &other) {
      reset();
      ptr_ = std::exchange(other.ptr_, nullptr);
    }
    return *this;
  }

  [[nodiscard]] Interface* get() const noexcept { return ptr_; }
  Interface* operator->() const noexcept { return ptr_; }
  explicit operator bool() const noexcept { return ptr_ != nullptr; }

  [[nodiscard]] Interface** put() noexcept {
    reset();
    return &ptr_;
  }
  [[nodiscard]] void** put_void() noexcept { return reinterpret_cast<void**>(put()); }

  // Gives the reference up without releasing it (say why at the call site).
  [[nodiscard]] Interface* release() noexcept { return std::exchange(ptr_, nullptr); }

  void reset() noexcept {
    if (Interface* old = std::exchange(ptr_, nullptr)) {
      const DWORD error = ::GetLastError();
      old->Release();
      ::SetLastError(error);
    }
  }

 private:
  Interface* ptr_ = nullptr;
};

}  // namespace ambrel
