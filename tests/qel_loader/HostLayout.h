// The delay-load host (tests/qel_loader/delayload) alone in one folder, and a
// copy of Ambrel.dll in another (under `libraryParent`, e.g. R:\ for a
// development build), so the host's ordinary search never sees the library's
// folder.
#pragma once

#include <map>
#include <string>

#include "tests/support/SdkSandbox.h"

namespace ambrel::test {

class HostLayout {
 public:
  explicit HostLayout(const std::wstring& libraryParent = L"");
  const ScratchDir& libraryDir() const { return libraryDir_; }
  // Runs the host in `sandbox` and returns its "key: value" lines.
  std::map<std::string, std::string> Run(const SdkSandbox& sandbox, const std::wstring& mode,
                                         const std::wstring& folder = L"") const;
  // The same with another build of the host program (a file name beside the tests).
  std::map<std::string, std::string> RunHost(const std::wstring& program, const SdkSandbox& sandbox,
                                             const std::wstring& mode, const std::wstring& folder = L"") const;

 private:
  ScratchDir hostDir_;
  ScratchDir libraryDir_;
};

// The folder that holds the test programs and the test DLLs.
std::wstring BinFile(const std::wstring& name);
void CopyFileTo(const std::wstring& from, const std::wstring& to);

}  // namespace ambrel::test
