// The MSVC-ABI build's start-up runtime (toolchains/msvc-wine/runtime), as linked
// into this program: the stack probe __chkstk, the /GS cookie's seeding, the
// type_info name cache's alignment, and a DLL whose attach fails.
#include <windows.h>

#include <stdint.h>
#include <string.h>

#include <string>

#include <gtest/gtest.h>

extern "C" {
void __chkstk();
extern unsigned __int64 __security_cookie;
void __cdecl __security_init_cookie(void);

// Every general register, in encoding order, before and after a call.
struct ProbeRegisters {
  uint64_t value[16];
};
enum : int { kRax = 0, kRcx = 1, kRsp = 4, kR10 = 10, kR11 = 11 };

// Loads every register but rsp from `registers`, switches to the stack at
// registers->value[kRsp], calls __chkstk, and stores every register (rsp
// included) back as __chkstk left them; then returns on its own stack.
void AmbrelRunStackProbe(ProbeRegisters* registers);
}

__asm__(
    ".data\n"
    ".p2align 3\n"
    "AmbrelProbeSavedRsp: .quad 0\n"
    "AmbrelProbeRegisters: .quad 0\n"
    "AmbrelProbeScratch: .quad 0\n"
    ".text\n"
    ".globl AmbrelRunStackProbe\n"
    "AmbrelRunStackProbe:\n"
    "  pushq %rbx\n  pushq %rbp\n  pushq %rdi\n  pushq %rsi\n"
    "  pushq %r12\n  pushq %r13\n  pushq %r14\n  pushq %r15\n"
    "  movq %rsp, AmbrelProbeSavedRsp(%rip)\n"
    "  movq %rcx, AmbrelProbeRegisters(%rip)\n"
    "  movq 0x00(%rcx), %rax\n"
    "  movq 0x10(%rcx), %rdx\n"
    "  movq 0x18(%rcx), %rbx\n"
    "  movq 0x28(%rcx), %rbp\n"
    "  movq 0x30(%rcx), %rsi\n"
    "  movq 0x38(%rcx), %rdi\n"
    "  movq 0x40(%rcx), %r8\n  movq 0x48(%rcx), %r9\n  movq 0x50(%rcx), %r10\n  movq 0x58(%rcx), %r11\n"
    "  movq 0x60(%rcx), %r12\n  movq 0x68(%rcx), %r13\n  movq 0x70(%rcx), %r14\n  movq 0x78(%rcx), %r15\n"
    "  movq 0x20(%rcx), %rsp\n"
    "  movq 0x08(%rcx), %rcx\n"
    "  callq __chkstk\n"
    "  movq %rcx, AmbrelProbeScratch(%rip)\n"
    "  movq AmbrelProbeRegisters(%rip), %rcx\n"
    "  movq %rax, 0x00(%rcx)\n"
    "  movq AmbrelProbeScratch(%rip), %rax\n"
    "  movq %rax, 0x08(%rcx)\n"
    "  movq %rdx, 0x10(%rcx)\n"
    "  movq %rbx, 0x18(%rcx)\n"
    "  movq %rsp, 0x20(%rcx)\n"
    "  movq %rbp, 0x28(%rcx)\n"
    "  movq %rsi, 0x30(%rcx)\n"
    "  movq %rdi, 0x38(%rcx)\n"
    "  movq %r8, 0x40(%rcx)\n  movq %r9, 0x48(%rcx)\n  movq %r10, 0x50(%rcx)\n  movq %r11, 0x58(%rcx)\n"
    "  movq %r12, 0x60(%rcx)\n  movq %r13, 0x68(%rcx)\n  movq %r14, 0x70(%rcx)\n  movq %r15, 0x78(%rcx)\n"
    "  movq AmbrelProbeSavedRsp(%rip), %rsp\n"
    "  popq %r15\n  popq %r14\n  popq %r13\n  popq %r12\n"
    "  popq %rsi\n  popq %rdi\n  popq %rbp\n  popq %rbx\n"
    "  retq\n");

namespace {

constexpr size_t kPage = 0x1000;
constexpr size_t kStackPages = 16;
constexpr unsigned char kUntouched = 0xA5;

// A stack of its own for one call of __chkstk: committed memory filled with a
// pattern, the thread's StackLimit moved to its top page for the call (as if
// only that page were committed yet), so that every byte the probe writes
// shows.
class FakeStack {
 public:
  FakeStack() {
    base_ = static_cast<unsigned char*>(
        ::VirtualAlloc(nullptr, kStackPages * kPage, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE));
    if (base_ != nullptr) memset(base_, kUntouched, kStackPages * kPage);
  }
  ~FakeStack() {
    if (base_ != nullptr) ::VirtualFree(base_, 0, MEM_RELEASE);
  }
  FakeStack(const FakeStack&) = delete;
  FakeStack& operator=(const FakeStack&) = delete;

  unsigned char* base() const { return base_; }
  unsigned char* top() const { return base_ + kStackPages * kPage; }

  // Calls __chkstk with rax = `size` and the caller's rsp at `rsp`, the
  // stack committed down to `limit`; returns the registers as it left them.
  ProbeRegisters Probe(uint64_t size, unsigned char* rsp, unsigned char* limit, ProbeRegisters* before) const {
    ProbeRegisters registers{};
    for (int index = 0; index < 16; ++index) registers.value[index] = 0x0101010101010101ull * (index + 1);
    registers.value[kRax] = size;
    // The call pushes its return address: __chkstk sees rsp 8 lower.
    registers.value[kRsp] = reinterpret_cast<uint64_t>(rsp);
    *before = registers;
    NT_TIB* const tib = reinterpret_cast<NT_TIB*>(::NtCurrentTeb());
    void* const savedLimit = tib->StackLimit;
    tib->StackLimit = limit;
    AmbrelRunStackProbe(&registers);
    tib->StackLimit = savedLimit;
    return registers;
  }

  // The offsets from base() of every byte no longer holding the pattern.
  std::string Written() const {
    std::string offsets;
    for (size_t offset = 0; offset < kStackPages * kPage; ++offset) {
      if (base_[offset] != kUntouched) offsets += std::to_string(offset) + " ";
    }
    return offsets;
  }

 private:
  unsigned char* base_ = nullptr;
};

// The offsets of a return address pushed at `rsp`, as Written() lists them.
std::string ReturnAddressBytes(const FakeStack& stack, const unsigned char* rsp) {
  std::string offsets;
  for (size_t offset = static_cast<size_t>(rsp - stack.base()) - 8; offset < static_cast<size_t>(rsp - stack.base());
       ++offset) {
    offsets += std::to_string(offset) + " ";
  }
  return offsets;
}

class StackProbe : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(stack_.base(), nullptr); }
  // __chkstk for a frame of `size` bytes below rsp_, committed down to limit_.
  ProbeRegisters Probe(uint64_t size) { return stack_.Probe(size, rsp_, limit_, &before_); }
  std::string ReturnAddress() const { return ReturnAddressBytes(stack_, rsp_); }

  FakeStack stack_;
  unsigned char* const rsp_ = stack_.top() - 0x40;
  unsigned char* const limit_ = stack_.top() - kPage;
  ProbeRegisters before_{};
};

TEST_F(StackProbe, TouchesEachPageFromTheLimitDownToTheNewBottomAndKeepsEveryRegisterButR10R11) {
  // 5 pages and a bit below rsp: the new bottom lies in the 6th page below the top.
  const ProbeRegisters after = Probe(5 * kPage + 0x100);
  for (int index = 0; index < 16; ++index) {
    if (index == kR10 || index == kR11) continue;
    EXPECT_EQ(after.value[index], before_.value[index]) << "register " << index;
  }
  // The pages below the limit, each at its lowest byte, the new bottom's page
  // last; the return address; nothing else.
  std::string expected;
  for (size_t page = 6; page >= 2; --page) expected += std::to_string((kStackPages - page) * kPage) + " ";
  EXPECT_EQ(stack_.Written(), expected + ReturnAddress());
  for (size_t page = 2; page <= 6; ++page) EXPECT_EQ(stack_.top()[-static_cast<ptrdiff_t>(page * kPage)], 0);
}

TEST_F(StackProbe, WritesNothingWhileTheNewBottomIsWithinTheCommittedStack) {
  // New bottom exactly at the limit: already committed.
  const ProbeRegisters after = Probe(kPage - 0x40);
  EXPECT_EQ(after.value[kRsp], before_.value[kRsp]);
  EXPECT_EQ(after.value[kRax], before_.value[kRax]);
  EXPECT_EQ(stack_.Written(), ReturnAddress());
}

TEST_F(StackProbe, OneByteBelowTheLimitTouchesThePageBelowIt) {
  const ProbeRegisters after = Probe(kPage - 0x40 + 1);
  EXPECT_EQ(after.value[kRsp], before_.value[kRsp]);
  EXPECT_EQ(stack_.Written(), std::to_string((kStackPages - 2) * kPage) + " " + ReturnAddress());
}

// A frame the compiler probes: its prologue calls __chkstk, which this
// program links from the start-up runtime, not from any DLL.
__declspec(noinline) int LargeFrame(int index) {
  volatile unsigned char buffer[256 * 1024];
  buffer[index] = 1;
  buffer[0] = 2;
  return buffer[index] + buffer[0];
}

DWORD WINAPI RunLargeFrame(void*) { return static_cast<DWORD>(LargeFrame(200 * 1024)); }

TEST(CompiledStackProbe, AFrameOfManyPagesRunsOnAThreadWhoseStackIsCommittedPageByPage) {
  // 64 KB committed at first, 1 MB reserved: the frame's pages are
  // committed through the guard page as the probe meets it.
  HANDLE thread = ::CreateThread(nullptr, 64 * 1024, &RunLargeFrame, nullptr, 0, nullptr);
  ASSERT_NE(thread, nullptr);
  ASSERT_EQ(::WaitForSingleObject(thread, 10000), static_cast<DWORD>(WAIT_OBJECT_0));
  DWORD code = 0;
  ::GetExitCodeThread(thread, &code);
  ::CloseHandle(thread);
  EXPECT_EQ(code, 3u);
}

// ---- /GS cookie
constexpr unsigned __int64 kDefaultCookie = 0x00002B992DDFA232ull;

// Restores this program's cookie when a test ends, so that the frames that
// checked against it still pass their checks.
class CookieGuard {
 public:
  CookieGuard() : saved_(__security_cookie) {}
  ~CookieGuard() { __security_cookie = saved_; }
  CookieGuard(const CookieGuard&) = delete;
  CookieGuard& operator=(const CookieGuard&) = delete;
  unsigned __int64 saved() const { return saved_; }

 private:
  unsigned __int64 saved_;
};

TEST(SecurityCookie, TheLoaderSeededThisProgramsCookie) {
  // The file holds the default (package.images reads it); the loader replaced it.
  EXPECT_NE(__security_cookie, kDefaultCookie);
  EXPECT_NE(__security_cookie, 0u);
}

TEST(SecurityCookie, ACookieTheLoaderSeededIsKept) {
  unsigned __int64 kept = 0;
  {
    CookieGuard guard;
    __security_cookie = 0x0000123456789ABCull;
    __security_init_cookie();
    kept = __security_cookie;
  }
  EXPECT_EQ(kept, 0x0000123456789ABCull);
}

// The functions the seed reads from KERNEL32, answered with constants through
// this program's import table, so that only the stack address varies.
void WINAPI FixedTime(FILETIME* time) {
  time->dwLowDateTime = 0x11111111;
  time->dwHighDateTime = 0x2222;
}
BOOL WINAPI FixedCounter(LARGE_INTEGER* counter) {
  counter->QuadPart = 0x33334444;
  return TRUE;
}
DWORD WINAPI FixedThreadId() { return 0x55; }
DWORD WINAPI FixedProcessId() { return 0x66; }

// Points this program's KERNEL32 import slots of the four functions at the
// constants above, and back when it ends.
class FixedEntropy {
 public:
  FixedEntropy() {
    Replace("GetSystemTimeAsFileTime", reinterpret_cast<void*>(&FixedTime));
    Replace("QueryPerformanceCounter", reinterpret_cast<void*>(&FixedCounter));
    Replace("GetCurrentThreadId", reinterpret_cast<void*>(&FixedThreadId));
    Replace("GetCurrentProcessId", reinterpret_cast<void*>(&FixedProcessId));
  }
  ~FixedEntropy() {
    for (int index = count_ - 1; index >= 0; --index) Write(slots_[index], originals_[index]);
  }
  FixedEntropy(const FixedEntropy&) = delete;
  FixedEntropy& operator=(const FixedEntropy&) = delete;
  int replaced() const { return count_; }

 private:
  static void Write(void** slot, void* value) {
    DWORD old = 0;
    if (!::VirtualProtect(slot, sizeof(void*), PAGE_READWRITE, &old)) return;
    *slot = value;
    ::VirtualProtect(slot, sizeof(void*), old, &old);
  }
  void Replace(const char* name, void* replacement) {
    auto* const module = reinterpret_cast<unsigned char*>(::GetModuleHandleW(nullptr));
    const auto* dos = reinterpret_cast<const IMAGE_DOS_HEADER*>(module);
    const auto* nt = reinterpret_cast<const IMAGE_NT_HEADERS64*>(module + dos->e_lfanew);
    const IMAGE_DATA_DIRECTORY& directory = nt->OptionalHeader.DataDirectory[IMAGE_DIRECTORY_ENTRY_IMPORT];
    void* const target = reinterpret_cast<void*>(::GetProcAddress(::GetModuleHandleW(L"kernel32.dll"), name));
    for (auto* entry = reinterpret_cast<const IMAGE_IMPORT_DESCRIPTOR*>(module + directory.VirtualAddress);
         entry->Name != 0; ++entry) {
      if (_stricmp(reinterpret_cast<const char*>(module + entry->Name), "kernel32.dll") != 0) continue;
      auto* const names = reinterpret_cast<const IMAGE_THUNK_DATA64*>(module + entry->OriginalFirstThunk);
      auto** const slots = reinterpret_cast<void**>(module + entry->FirstThunk);
      for (size_t index = 0; names[index].u1.AddressOfData != 0; ++index) {
        if (IMAGE_SNAP_BY_ORDINAL64(names[index].u1.Ordinal)) continue;
        const auto* byName = reinterpret_cast<const IMAGE_IMPORT_BY_NAME*>(module + names[index].u1.AddressOfData);
        if (strcmp(reinterpret_cast<const char*>(byName->Name), name) != 0 || count_ == 4) continue;
        if (slots[index] != target && target != nullptr) continue;
        slots_[count_] = &slots[index];
        originals_[count_] = slots[index];
        ++count_;
        Write(&slots[index], replacement);
      }
    }
  }

  void** slots_[4] = {};
  void* originals_[4] = {};
  int count_ = 0;
};

// Seeds a default cookie from `depth` frames further down the stack (the
// write after the call keeps the recursion from becoming a loop).
__declspec(noinline) unsigned __int64 SeedFrom(int depth) {
  volatile int frame = depth;
  if (frame > 0) {
    const unsigned __int64 cookie = SeedFrom(frame - 1);
    frame = 0;
    return cookie + static_cast<unsigned>(frame);
  }
  __security_cookie = kDefaultCookie;
  __security_init_cookie();
  return __security_cookie;
}

TEST(SecurityCookie, ADefaultCookieIsSeededWithAStackAddressMixedIn) {
  unsigned __int64 first = 0, again = 0, deeper = 0;
  int replaced = 0;
  {
    CookieGuard guard;
    FixedEntropy entropy;
    replaced = entropy.replaced();
    first = SeedFrom(3);
    again = SeedFrom(3);
    deeper = SeedFrom(9);
  }
  ASSERT_EQ(replaced, 4) << "the start-up code reads the time, the counter and both ids from KERNEL32";
  EXPECT_NE(first, kDefaultCookie);
  EXPECT_NE(first, 0u);
  EXPECT_EQ(first >> 48, 0u) << "the top 16 bits stay clear";
  // Same time, counter and ids: the same depth gives the same cookie, another
  // depth another one, differing only in the low bits of a stack address.
  EXPECT_EQ(first, again);
  EXPECT_NE(first, deeper);
  EXPECT_EQ((first ^ deeper) >> 32, 0u);
}

// ---- type_info's name cache
extern "C" __type_info_node __type_info_root_node;

TEST(TypeInfoNames, TheRootNodeIsSixteenAligned) {
  static_assert(alignof(decltype(__type_info_root_node)) == 16, "an SLIST_HEADER");
  EXPECT_EQ(reinterpret_cast<uintptr_t>(&__type_info_root_node) % 16, 0u);
  // A name the runtime keeps for this module through that list: the same each time.
  const char* const name = typeid(FakeStack).name();
  ASSERT_NE(name, nullptr);
  EXPECT_EQ(typeid(FakeStack).name(), name);
}

// ---- a DLL whose attach fails
// The stand-in DLLs write what their DllMain and exit list saw into this
// process's environment; the load must fail and the order be Microsoft's.
std::wstring LoadAndReadLog(const wchar_t* name) {
  ::SetEnvironmentVariableW(L"AMBREL_ATTACH_LOG", L"");
  HMODULE module = ::LoadLibraryW(name);
  const DWORD error = ::GetLastError();
  if (module != nullptr) ::FreeLibrary(module);
  wchar_t log[256] = {};
  ::GetEnvironmentVariableW(L"AMBREL_ATTACH_LOG", log, 256);
  return std::wstring(module != nullptr ? L"loaded " : L"refused ") + std::to_wstring(error) + L": " + log;
}

TEST(FailedAttach, ADllMainThatFailsGetsOneDetachThenTheExitListRuns) {
  EXPECT_EQ(LoadAndReadLog(L"ambrel_attach_fails.dll"),
            L"refused " + std::to_wstring(ERROR_DLL_INIT_FAILED) + L": initialiser attach detach exit ");
}

TEST(FailedAttach, AModuleWhoseInitialisersFailRunsNoDllMainAtAll) {
  EXPECT_EQ(LoadAndReadLog(L"ambrel_init_fails.dll"),
            L"refused " + std::to_wstring(ERROR_DLL_INIT_FAILED) + L": initialiser ");
}

}  // namespace
