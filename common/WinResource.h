// One owner type per kind of Windows handle. Each owner closes its handle once,
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

template <typename Traits>
class UniqueResource {
 public:
  using Type = typename Traits::Type;

  UniqueResource() noexcept = default;
  explicit UniqueResource(Type value) noexcept : value_(value) {}
  ~UniqueResource() { reset(); }

  UniqueResource(const UniqueResource&) = delete;
  UniqueResource& operator=(const UniqueResource&) = delete;
  UniqueResource(UniqueResource&& other) noexcept : value_(other.release()) {}
  UniqueResource& operator=(UniqueResource&& other) noexcept {
    if (this != &other) reset(other.release());
    return *this;
  }

  [[nodiscard]] Type get() const noexcept { return value_; }
  [[nodiscard]] bool valid() const noexcept { return value_ != Traits::Invalid(); }
  explicit operator bool() const noexcept { return valid(); }

  // Closes what is held and returns the empty slot for a function to fill.
  [[nodiscard]] Type* put() noexcept {
    reset();
    return &value_;
  }

  [[nodiscard]] Type release() noexcept { return std::exchange(value_, Traits::Invalid()); }

  void reset(Type value = Traits::Invalid()) noexcept {
    Type old = std::exchange(value_, value);
    if (old != Traits::Invalid()) {
      const DWORD error = ::GetLastError();
      Traits::Close(old);
      ::SetLastError(error);
    }
  }

 private:
  Type value_ = Traits::Invalid();
};

struct RegKeyTraits {
  using Type = HKEY;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type key) noexcept { ::RegCloseKey(key); }
};
struct ModuleTraits {
  using Type = HMODULE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type module) noexcept { ::FreeLibrary(module); }
};
// Kernel handles whose "none" value is null (events, processes, threads).
struct HandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type handle) noexcept { ::CloseHandle(handle); }
};
// Kernel handles whose "none" value is INVALID_HANDLE_VALUE (files, snapshots).
struct FileHandleTraits {
  using Type = HANDLE;
  static Type Invalid() noexcept { return INVALID_HANDLE_VALUE; }
  static void Close(Type handle) noexcept { ::CloseHandle(handle); }
};
struct DllDirectoryTraits {
  using Type = DLL_DIRECTORY_COOKIE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type cookie) noexcept { ::RemoveDllDirectory(cookie); }
};
struct CoTaskMemTraits {
  using Type = void*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type memory) noexcept { ::CoTaskMemFree(memory); }
};
// Shell item lists (ITEMIDLIST), which the shell allocates with the COM task allocator.
struct ItemListTraits {
  using Type = LPITEMIDLIST;
  static Type Invalid() noexcept { return nullptr; }
  // Runs only when SHGetMalloc fails, which it does not on Windows or Wine.
  static void Close(Type items) noexcept { ::CoTaskMemFree(items); }  // GCOVR_EXCL_LINE
};
// The block GetEnvironmentStringsW hands out.
struct EnvironmentStringsTraits {
  using Type = wchar_t*;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type block) noexcept { ::FreeEnvironmentStringsW(block); }
};
struct CertStoreTraits {
  using Type = HCERTSTORE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type store) noexcept { ::CertCloseStore(store, 0); }
};
struct CryptMsgTraits {
  using Type = HCRYPTMSG;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type message) noexcept { ::CryptMsgClose(message); }
};
struct CertContextTraits {
  using Type = PCCERT_CONTEXT;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type context) noexcept { ::CertFreeCertificateContext(context); }
};
struct CertChainEngineTraits {
  using Type = HCERTCHAINENGINE;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type engine) noexcept { ::CertFreeCertificateChainEngine(engine); }
};
struct CertChainTraits {
  using Type = PCCERT_CHAIN_CONTEXT;
  static Type Invalid() noexcept { return nullptr; }
  static void Close(Type chain) noexcept { ::CertFreeCertificateChain(chain); }
};

using UniqueRegKey = UniqueResource<RegKeyTraits>;
using UniqueModule = UniqueResource<ModuleTraits>;
using UniqueHandle = UniqueResource<HandleTraits>;
using UniqueFileHandle = UniqueResource<FileHandleTraits>;
using UniqueDllDirectory = UniqueResource<DllDirectoryTraits>;
using UniqueCoTaskMem = UniqueResource<CoTaskMemTraits>;
using UniqueItemList = UniqueResource<ItemListTraits>;
using UniqueEnvironmentStrings = UniqueResource<EnvironmentStringsTraits>;
using UniqueCertStore = UniqueResource<CertStoreTraits>;
using UniqueCryptMsg = UniqueResource<CryptMsgTraits>;
using UniqueCertContext = UniqueResource<CertContextTraits>;
using UniqueCertChainEngine = UniqueResource<CertChainEngineTraits>;
using UniqueCertChain = UniqueResource<CertChainTraits>;

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
