// Stands in for the Visual C++ runtime's <vcruntime_exception.h>:
// std::exception and the allocation errors with MSVC's object layout (a
// vtable pointer, then the message and whether the object owns it), so that
// exceptions thrown by msvcp140 and caught here, or the other way round, agree
// on every field. The message copy and release are vcruntime140's. Test build
// only.
#pragma once
#include <eh.h>
#include <vcruntime.h>

#pragma pack(push, 8)

extern "C" {
struct __std_exception_data {
  const char* _What;
  bool _DoFree;
};
_VCRTIMP void __cdecl __std_exception_copy(const __std_exception_data* from, __std_exception_data* to);
_VCRTIMP void __cdecl __std_exception_destroy(__std_exception_data* data);
}

namespace std {

class exception {
 public:
  exception() noexcept : _Data() {}
  explicit exception(const char* const message) noexcept : _Data() {
    const __std_exception_data owned = {message, true};
    __std_exception_copy(&owned, &_Data);
  }
  // A message of static storage, not copied.
  exception(const char* const message, int) noexcept : _Data() { _Data._What = message; }
  exception(const exception& other) noexcept : _Data() { __std_exception_copy(&other._Data, &_Data); }
  exception& operator=(const exception& other) noexcept {
    if (this != &other) {
      __std_exception_destroy(&_Data);
      __std_exception_copy(&other._Data, &_Data);
    }
    return *this;
  }
  virtual ~exception() noexcept { __std_exception_destroy(&_Data); }
  [[nodiscard]] virtual const char* what() const { return _Data._What ? _Data._What : "Unknown exception"; }

 private:
  __std_exception_data _Data;
};

class bad_exception : public exception {
 public:
  bad_exception() noexcept : exception("bad exception", 1) {}
};

class bad_array_new_length;

class bad_alloc : public exception {
 public:
  bad_alloc() noexcept : exception("bad allocation", 1) {}

 private:
  friend class bad_array_new_length;
  bad_alloc(const char* const message) noexcept : exception(message, 1) {}
};

class bad_array_new_length : public bad_alloc {
 public:
  bad_array_new_length() noexcept : bad_alloc("bad array new length") {}
};

}  // namespace std

#pragma pack(pop)

static_assert(sizeof(std::exception) == 24, "std::exception is 24 bytes with MSVC x64");
static_assert(sizeof(std::bad_alloc) == 24, "std::bad_alloc adds nothing to std::exception");
static_assert(sizeof(__std_exception_data) == 16, "__std_exception_data is 16 bytes with MSVC x64");
