// The handle owners close once and keep the caller's GetLastError across the
// close, so an owner leaving scope between a failed call and the look at its
// error cannot replace that error.
#include "common/WinResource.h"

#include <gtest/gtest.h>

namespace ambrel::test {
namespace {

constexpr DWORD kCallersError = ERROR_FILE_NOT_FOUND;
constexpr DWORD kCloseError = ERROR_INVALID_HANDLE;

int g_closes = 0;

// A close that fails the way CloseHandle on a bad handle does: it sets its own error.
void FailingCloseOf(int /*handle*/) noexcept {
  ++g_closes;
  ::SetLastError(kCloseError);
}
using FailingClose = UniqueAny<int, &FailingCloseOf>;

TEST(WinResource, ClosingKeepsTheCallersLastError) {
  g_closes = 0;
  {
    const FailingClose owner(1);
    ::SetLastError(kCallersError);
  }
  EXPECT_EQ(g_closes, 1);
  EXPECT_EQ(::GetLastError(), kCallersError);

  FailingClose owner(2);
  ::SetLastError(kCallersError);
  owner.reset(3);
  EXPECT_EQ(::GetLastError(), kCallersError);
  ::SetLastError(kCallersError);
  (void)owner.put();
  EXPECT_EQ(::GetLastError(), kCallersError);
  EXPECT_EQ(g_closes, 3);
}

TEST(WinResource, AnEmptyOwnerClosesNothing) {
  g_closes = 0;
  { const FailingClose owner; }
  FailingClose given(4);
  (void)given.release();
  EXPECT_EQ(g_closes, 0);
}

TEST(WinResource, EachKindHasItsOwnNoneValue) {
  const UniqueFileHandle file;
  EXPECT_EQ(file.get(), INVALID_HANDLE_VALUE);
  EXPECT_FALSE(file);
  const UniqueHandle event;
  EXPECT_EQ(event.get(), nullptr);
}

TEST(WinResource, AKernelHandleIsClosedOnce) {
  HANDLE raw = ::CreateEventW(nullptr, TRUE, FALSE, nullptr);
  ASSERT_NE(raw, nullptr);
  { const UniqueHandle owner(raw); }
  DWORD flags = 0;
  EXPECT_FALSE(::GetHandleInformation(raw, &flags));  // closed by the owner
}

// An interface whose Release sets an error of its own.
struct ErrorOnRelease : IUnknown {
  int releases = 0;
  HRESULT STDMETHODCALLTYPE QueryInterface(REFIID, void**) override { return E_NOINTERFACE; }
  ULONG STDMETHODCALLTYPE AddRef() override { return 1; }
  ULONG STDMETHODCALLTYPE Release() override {
    ++releases;
    ::SetLastError(kCloseError);
    return 0;
  }
};

TEST(WinResource, ReleasingAnInterfaceKeepsTheCallersLastError) {
  ErrorOnRelease object;
  {
    ComPtr<IUnknown> owner;
    *owner.put() = &object;
    ::SetLastError(kCallersError);
  }
  EXPECT_EQ(object.releases, 1);
  EXPECT_EQ(::GetLastError(), kCallersError);
}

}  // namespace
}  // namespace ambrel::test
