#include "tests/qel_loader/HostLayout.h"

#include <filesystem>

namespace ambrel::test {

HostLayout::HostLayout(const std::wstring& libraryParent) : libraryDir_(libraryParent) {
  CopyFileTo(BinFile(L"ambrel_dlhost.exe"), hostDir_ / L"ambrel_dlhost.exe");
  // As a host ships it: the C++ runtime beside the executable, not the library.
  CopyRuntimeDllsTo(hostDir_.path());
  CopyFileTo(BinFile(L"Ambrel.dll"), libraryDir_ / L"Ambrel.dll");
}

std::map<std::string, std::string> HostLayout::Run(const SdkSandbox& sandbox, const std::wstring& mode,
                                                   const std::wstring& folder) const {
  return RunHost(L"ambrel_dlhost.exe", sandbox, mode, folder);
}

std::map<std::string, std::string> HostLayout::RunHost(const std::wstring& program, const SdkSandbox& sandbox,
                                                       const std::wstring& mode, const std::wstring& folder) const {
  if (!std::filesystem::exists(hostDir_ / program)) CopyFileTo(BinFile(program), hostDir_ / program);
  std::wstring arguments = L"\"" + libraryDir_.path() + L"\" \"" + sandbox.registry().ScratchKeyPath() + L"\" " + mode;
  if (!folder.empty()) arguments += L" \"" + folder + L"\"";
  const ProcessResult result = RunProcess(hostDir_ / program, arguments);
  std::map<std::string, std::string> lines;
  lines["exit code"] = ExitCodeText(result.exitCode);
  for (const std::string& line : SplitLines(result.output)) {
    const size_t colon = line.find(": ");
    if (colon != std::string::npos) lines[line.substr(0, colon)] = line.substr(colon + 2);
  }
  return lines;
}

std::wstring BinFile(const std::wstring& name) { return TestBinDirectory() + L"\\" + name; }

void CopyFileTo(const std::wstring& from, const std::wstring& to) {
  std::filesystem::create_directories(std::filesystem::path(to).parent_path());
  std::filesystem::copy_file(from, to, std::filesystem::copy_options::overwrite_existing);
}

}  // namespace ambrel::test
