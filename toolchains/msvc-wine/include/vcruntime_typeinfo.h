// Stands in for the Visual C++ runtime's <vcruntime_typeinfo.h>: type_info
// with MSVC's object layout (a vtable pointer, the cached undecorated name,
// then the decorated name the compiler writes inline), whose comparison,
// hash and name come from vcruntime140; and bad_cast and bad_typeid. The
// vtable, the destructor and __type_info_root_node, which Wine's
// vcruntime140 does not export, are in the start-up unit. Test build only.
#pragma once
#include <vcruntime_exception.h>

#pragma pack(push, 8)

extern "C" {
// vcruntime140 keeps the module's name cache as an interlocked singly linked
// list whose head this is (an SLIST_HEADER, which x64 interlocked operations
// require 16-aligned: "Interlocked Singly Linked Lists", Microsoft Learn).
struct __declspec(align(16)) __type_info_node {
  void* _Header;
  __type_info_node* _Next;
};
extern __type_info_node __type_info_root_node;

struct __std_type_info_data {
  const char* _UndecoratedName;
  const char _DecoratedName[1];
  __std_type_info_data() = delete;
  __std_type_info_data(const __std_type_info_data&) = delete;
  __std_type_info_data& operator=(const __std_type_info_data&) = delete;
};
_VCRTIMP int __cdecl __std_type_info_compare(const __std_type_info_data* left, const __std_type_info_data* right);
_VCRTIMP size_t __cdecl __std_type_info_hash(const __std_type_info_data* data);
_VCRTIMP const char* __cdecl __std_type_info_name(__std_type_info_data* data, __type_info_node* root);
}

class type_info {
 public:
  type_info(const type_info&) = delete;
  type_info& operator=(const type_info&) = delete;

  [[nodiscard]] size_t hash_code() const noexcept { return __std_type_info_hash(&_Data); }
  [[nodiscard]] bool operator==(const type_info& other) const noexcept {
    return __std_type_info_compare(&_Data, &other._Data) == 0;
  }
#if !_HAS_CXX20
  // Before C++20 no != is rewritten from ==: <any> and hosts compare with it.
  [[nodiscard]] bool operator!=(const type_info& other) const noexcept {
    return __std_type_info_compare(&_Data, &other._Data) != 0;
  }
#endif
  [[nodiscard]] bool before(const type_info& other) const noexcept {
    return __std_type_info_compare(&_Data, &other._Data) < 0;
  }
  [[nodiscard]] const char* name() const noexcept { return __std_type_info_name(&_Data, &__type_info_root_node); }
  [[nodiscard]] const char* raw_name() const noexcept { return _Data._DecoratedName; }
  virtual ~type_info() noexcept;

 private:
  mutable __std_type_info_data _Data;
};

namespace std {
using ::type_info;

class bad_cast : public exception {
 public:
  bad_cast() noexcept : exception("bad cast", 1) {}
  static bad_cast __construct_from_string_literal(const char* const message) noexcept { return bad_cast(message, 1); }

 private:
  bad_cast(const char* const message, int) noexcept : exception(message, 1) {}
};

class bad_typeid : public exception {
 public:
  bad_typeid() noexcept : exception("bad typeid", 1) {}
  static bad_typeid __construct_from_string_literal(const char* const message) noexcept {
    return bad_typeid(message, 1);
  }

 private:
  friend class __non_rtti_object;
  bad_typeid(const char* const message, int) noexcept : exception(message, 1) {}
};

class __non_rtti_object : public bad_typeid {
 public:
  static __non_rtti_object __construct_from_string_literal(const char* const message) noexcept {
    return __non_rtti_object(message, 1);
  }

 private:
  __non_rtti_object(const char* const message, int) noexcept : bad_typeid(message, 1) {}
};
}  // namespace std

#pragma pack(pop)

static_assert(sizeof(type_info) == 24, "type_info is 24 bytes with MSVC x64");
static_assert(sizeof(__type_info_node) == 16, "__type_info_node is 16 bytes with MSVC x64");
static_assert(alignof(__type_info_node) == 16, "__type_info_node is an SLIST_HEADER: 16-aligned on x64");
