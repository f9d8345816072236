// Stands in for the Visual C++ runtime's <vcruntime_new.h>: std::nothrow_t,
// std::align_val_t and the declarations of operator new and delete in all
// their forms (the start-up unit defines the replaceable ones, as MSVC's
// static runtime library does), with the placement forms inline. Test build
// only.
#pragma once
#include <vcruntime.h>

#pragma pack(push, 8)

extern "C++" {

namespace std {
enum class align_val_t : size_t {};
struct nothrow_t {
  explicit nothrow_t() = default;
};
extern const nothrow_t nothrow;
}  // namespace std

[[nodiscard]] void* __cdecl operator new(size_t size);
[[nodiscard]] void* __cdecl operator new(size_t size, const std::nothrow_t&) noexcept;
[[nodiscard]] void* __cdecl operator new[](size_t size);
[[nodiscard]] void* __cdecl operator new[](size_t size, const std::nothrow_t&) noexcept;
void __cdecl operator delete(void* block) noexcept;
void __cdecl operator delete(void* block, const std::nothrow_t&) noexcept;
void __cdecl operator delete[](void* block) noexcept;
void __cdecl operator delete[](void* block, const std::nothrow_t&) noexcept;
void __cdecl operator delete(void* block, size_t size) noexcept;
void __cdecl operator delete[](void* block, size_t size) noexcept;

[[nodiscard]] void* __cdecl operator new(size_t size, std::align_val_t alignment);
[[nodiscard]] void* __cdecl operator new(size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept;
[[nodiscard]] void* __cdecl operator new[](size_t size, std::align_val_t alignment);
[[nodiscard]] void* __cdecl operator new[](size_t size, std::align_val_t alignment, const std::nothrow_t&) noexcept;
void __cdecl operator delete(void* block, std::align_val_t alignment) noexcept;
void __cdecl operator delete(void* block, std::align_val_t alignment, const std::nothrow_t&) noexcept;
void __cdecl operator delete[](void* block, std::align_val_t alignment) noexcept;
void __cdecl operator delete[](void* block, std::align_val_t alignment, const std::nothrow_t&) noexcept;
void __cdecl operator delete(void* block, size_t size, std::align_val_t alignment) noexcept;
void __cdecl operator delete[](void* block, size_t size, std::align_val_t alignment) noexcept;

#ifndef __PLACEMENT_NEW_INLINE
#define __PLACEMENT_NEW_INLINE
[[nodiscard]] inline void* __cdecl operator new(size_t, void* where) noexcept { return where; }
inline void __cdecl operator delete(void*, void*) noexcept {}
#endif
#ifndef __PLACEMENT_VEC_NEW_INLINE
#define __PLACEMENT_VEC_NEW_INLINE
[[nodiscard]] inline void* __cdecl operator new[](size_t, void* where) noexcept { return where; }
inline void __cdecl operator delete[](void*, void*) noexcept {}
#endif

}  // extern "C++"

#pragma pack(pop)

static_assert(sizeof(std::align_val_t) == 8, "align_val_t is a size_t");
static_assert(sizeof(std::nothrow_t) == 1, "nothrow_t is empty");
