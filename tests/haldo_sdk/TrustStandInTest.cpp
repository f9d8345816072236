#include "tests/haldo_sdk/TrustStandInTest.h"

#include <windows.h>

#include <filesystem>
#include <fstream>
#include <sstream>

#include "haldo_sdk/SignatureCheck.h"

namespace ambrel::test {
namespace {

std::wstring RecordFile(const ScratchDir& dir) { return dir.path() + L"\\trust-calls.txt"; }

}  // namespace

TrustStandInTest::TrustStandInTest() {
  env_.Set(L"AMBREL_TRUST_STANDIN_RECORD", RecordFile(records_));
  // The module that holds the signature check: this program, or Ambrel.dll
  // when a test links that.
  const HMODULE library = ModuleOf(reinterpret_cast<const void*>(&InspectSignature));
  for (const StandInImport& standIn : TrustStandIns()) {
    patches_.push_back(std::make_unique<ImportPatch>(library, standIn.dll, standIn.function, standIn.standIn));
  }
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
