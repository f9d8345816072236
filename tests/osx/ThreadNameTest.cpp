#include <gtest/gtest.h>

#include <array>

#include "Ambrel.h"

namespace ambrel {
namespace {

// What a vectored handler saw of the thread-naming exception; it runs before
// any frame-based handler, so it sees the exception before the guard takes it.
struct Seen {
  int count = 0;
  DWORD code = 0;
  DWORD flags = 0xFFFFFFFF;
  DWORD parameters = 0;
  std::array<ULONG_PTR, 4> words{};
};
Seen g_seen;

LONG CALLBACK WatchThreadNaming(EXCEPTION_POINTERS* info) {
  const EXCEPTION_RECORD* record = info->ExceptionRecord;
  if (record->ExceptionCode == 0x406D1388) {
    ++g_seen.count;
    g_seen.code = record->ExceptionCode;
    g_seen.flags = record->ExceptionFlags;
    g_seen.parameters = record->NumberParameters;
    for (size_t i = 0; i < 4 && i < record->NumberParameters; ++i) g_seen.words[i] = record->ExceptionInformation[i];
  }
  return EXCEPTION_CONTINUE_SEARCH;
}

class VectoredWatch {
 public:
  VectoredWatch() : handle_(::AddVectoredExceptionHandler(1, WatchThreadNaming)) { g_seen = {}; }
  ~VectoredWatch() { ::RemoveVectoredExceptionHandler(handle_); }
  bool installed() const { return handle_ != nullptr; }

 private:
  void* handle_;
};

TEST(SetThreadName, ReturnsNormallyWithoutADebugger) {
  ASSERT_FALSE(::IsDebuggerPresent());
  OSxThread::SetThreadName("Kalvex worker", 0xFFFFFFFF);
  SUCCEED();
}

TEST(SetThreadName, RaisesTheNamingExceptionWithTheFourWords) {
  VectoredWatch watch;
  ASSERT_TRUE(watch.installed());
  const char name[] = "Kalvex worker";
  OSxThread::SetThreadName(name, 0xFFFFFFFF);
  ASSERT_EQ(g_seen.count, 1);
  EXPECT_EQ(g_seen.code, 0x406D1388u);
  EXPECT_EQ(g_seen.flags, 0u);  // continuable
  EXPECT_EQ(g_seen.parameters, 4u);
  EXPECT_EQ(g_seen.words[0], 0x1000u);
  EXPECT_EQ(g_seen.words[1], reinterpret_cast<ULONG_PTR>(name));  // the caller's text, not a copy
  EXPECT_EQ(g_seen.words[2], ULONG_PTR{0x00000000FFFFFFFF});      // zero-extended
  EXPECT_EQ(g_seen.words[3], 0u);
}

TEST(SetThreadName, CarriesAnotherThreadsId) {
  VectoredWatch watch;
  const DWORD id = ::GetCurrentThreadId();
  OSxThread::SetThreadName("main", id);
  ASSERT_EQ(g_seen.count, 1);
  EXPECT_EQ(g_seen.words[2], static_cast<ULONG_PTR>(id));
  EXPECT_STREQ(reinterpret_cast<const char*>(g_seen.words[1]), "main");
}

}  // namespace
}  // namespace ambrel
