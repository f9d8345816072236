#include "tests/haldo_sdk/TrustStandInTest.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <sstream>

namespace ambrel::test {
namespace {

std::wstring RecordFile(const ScratchDir& dir) { return dir.path() + L"\\trust-calls.txt"; }

bool IsStandIn(const wchar_t* module) {
  const HMODULE loaded = ::GetModuleHandleW(module);
  return loaded && ::GetProcAddress(loaded, "AmbrelTrustStandIn");
}

}  // namespace

TrustStandInTest::TrustStandInTest() { env_.Set(L"AMBREL_TRUST_STANDIN_RECORD", RecordFile(records_)); }

void TrustStandInTest::SetUp() {
  ASSERT_TRUE(IsStandIn(L"wintrust.dll") && IsStandIn(L"crypt32.dll"))
      << "WINTRUST.DLL and CRYPT32.DLL are not the stand-ins: run with WINEDLLOVERRIDES=wintrust,crypt32=n";
}

std::vector<TrustStandInTest::Call> TrustStandInTest::Calls() const {
  std::ifstream file(std::filesystem::path(RecordFile(records_)), std::ios::binary);
  std::stringstream content;
  content << file.rdbuf();
  std::vector<Call> calls;
  for (const std::string& line : SplitLines(content.str())) {
    const std::size_t tab = line.rfind('\t');
    std::string logLine = line.substr(tab + 1);
    // "[YYYY-MM-DDTHH:MM:SS] " is 22 characters.
    if (HasTimestampShape(logLine)) logLine = logLine.substr(22);
    calls.emplace_back(line.substr(0, tab), logLine);
  }
  return calls;
}

}  // namespace ambrel::test
