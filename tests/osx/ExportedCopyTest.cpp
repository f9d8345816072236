// Uint16ToWchar / WcharToUint16 as a host gets them: through Ambrel.dll's
// import library, so what runs is the released DLL's code, compiled and
// optimised as it ships, not the test program's own copy of the objects.
// Overlapping areas must come out as a forward unit-by-unit copy leaves them.
#include <windows.h>

#include <gtest/gtest.h>

#include <cstddef>
#include <string>
#include <vector>

#include "Ambrel.h"

namespace {

constexpr unsigned short kFirstValue = 100;
constexpr std::size_t kMargin = 48;  // untouched units on both sides of every copy

// Counts 0 to 64, then a few that exceed any vector width and unroll factor.
std::vector<std::size_t> Counts() {
  std::vector<std::size_t> counts;
  for (std::size_t count = 0; count <= 64; ++count) counts.push_back(count);
  for (std::size_t count : {65u, 100u, 127u, 128u, 129u, 255u, 1000u, 4099u}) counts.push_back(count);
  return counts;
}

// Distances between destination and source, in units.
constexpr std::ptrdiff_t kShifts[] = {1, 2, 3, 4, 5, 7, 8, 9, 16, 17, 31, 32, 33};

std::vector<unsigned short> Pattern(std::size_t size) {
  std::vector<unsigned short> units(size);
  for (std::size_t i = 0; i < size; ++i) units[i] = static_cast<unsigned short>(kFirstValue + i);
  return units;
}

// What a forward copy leaves, one unit after the other, over one element type.
void ReferenceCopy(std::vector<unsigned short>& units, std::size_t to, std::size_t from, std::size_t count) {
  for (std::size_t i = 0; i < count; ++i) units[to + i] = units[from + i];
}

enum class Export { Uint16ToWchar, WcharToUint16 };

void CopyThroughDll(Export which, unsigned short* to, unsigned short* from, std::size_t count) {
  if (which == Export::Uint16ToWchar) {
    OSxMisc::Uint16ToWchar(reinterpret_cast<wchar_t*>(to), from, count);
  } else {
    OSxMisc::WcharToUint16(to, reinterpret_cast<const wchar_t*>(from), count);
  }
}

// Runs every count and shift with the destination ahead of the source
// (ahead = true: each copied unit is read again later) or behind it.
void CheckAllOverlaps(Export which, bool ahead) {
  for (const std::size_t count : Counts()) {
    for (const std::ptrdiff_t shift : kShifts) {
      const std::size_t size = kMargin + count + static_cast<std::size_t>(shift) + kMargin;
      const std::size_t low = kMargin;
      const std::size_t high = kMargin + static_cast<std::size_t>(shift);
      const std::size_t to = ahead ? high : low;
      const std::size_t from = ahead ? low : high;

      std::vector<unsigned short> expected = Pattern(size);
      ReferenceCopy(expected, to, from, count);
      std::vector<unsigned short> actual = Pattern(size);
      CopyThroughDll(which, actual.data() + to, actual.data() + from, count);

      ASSERT_EQ(actual, expected) << "count " << count << ", destination " << (ahead ? "ahead of" : "behind")
                                  << " the source by " << shift;
    }
  }
}

TEST(ExportedUint16Copy, TheCalledRoutinesAreTheDllsExports) {
  const HMODULE library = ::GetModuleHandleW(L"Ambrel.dll");
  ASSERT_NE(library, nullptr);
  for (const void* code : {reinterpret_cast<const void*>(&OSxMisc::Uint16ToWchar),
                           reinterpret_cast<const void*>(&OSxMisc::WcharToUint16)}) {
    HMODULE owner = nullptr;
    ASSERT_TRUE(
        ::GetModuleHandleExW(GET_MODULE_HANDLE_EX_FLAG_FROM_ADDRESS | GET_MODULE_HANDLE_EX_FLAG_UNCHANGED_REFCOUNT,
                             static_cast<LPCWSTR>(code), &owner));
    EXPECT_EQ(owner, library);
  }
}

TEST(ExportedUint16Copy, IssueExampleFillsEveryUnitWithTheFirstValue) {
  std::vector<unsigned short> units = Pattern(41 + kMargin);
  OSxMisc::Uint16ToWchar(reinterpret_cast<wchar_t*>(units.data() + 1), units.data(), 40);
  for (std::size_t i = 0; i <= 40; ++i) ASSERT_EQ(units[i], kFirstValue) << "unit " << i;
  EXPECT_EQ(units[41], kFirstValue + 41);
}

TEST(ExportedUint16Copy, Uint16ToWcharDestinationAhead) { CheckAllOverlaps(Export::Uint16ToWchar, true); }
TEST(ExportedUint16Copy, Uint16ToWcharDestinationBehind) { CheckAllOverlaps(Export::Uint16ToWchar, false); }
TEST(ExportedUint16Copy, WcharToUint16DestinationAhead) { CheckAllOverlaps(Export::WcharToUint16, true); }
TEST(ExportedUint16Copy, WcharToUint16DestinationBehind) { CheckAllOverlaps(Export::WcharToUint16, false); }

TEST(ExportedUint16Copy, ApartAreasGetExactlyCountUnits) {
  for (const std::size_t count : Counts()) {
    for (const Export which : {Export::Uint16ToWchar, Export::WcharToUint16}) {
      std::vector<unsigned short> source = Pattern(count + kMargin);
      std::vector<unsigned short> destination(count + kMargin, 7);
      CopyThroughDll(which, destination.data(), source.data(), count);
      std::vector<unsigned short> expected(count + kMargin, 7);
      for (std::size_t i = 0; i < count; ++i) expected[i] = source[i];
      ASSERT_EQ(destination, expected) << "count " << count;
    }
  }
}

}  // namespace
