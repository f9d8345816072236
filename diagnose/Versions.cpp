#include "diagnose/Versions.h"

#include <windows.h>

#include <vector>

#include "common/ModuleHelpers.h"

namespace ambrel::diagnose {
namespace {

constexpr DWORD kHalf = 16;  // a version DWORD holds two 16-bit parts
constexpr DWORD kPart = 0xFFFF;

std::string Parts(DWORD high, DWORD low) {
  return std::to_string(high >> kHalf) + "." + std::to_string(high & kPart) + "." + std::to_string(low >> kHalf) + "." +
         std::to_string(low & kPart);
}

}  // namespace

std::optional<std::string> FileVersionOf(const std::wstring& file) {
  DWORD ignored = 0;
  const DWORD size = ::GetFileVersionInfoSizeW(file.c_str(), &ignored);
  if (size == 0) return std::nullopt;
  std::vector<unsigned char> data(size);
  if (!::GetFileVersionInfoW(file.c_str(), 0, size, data.data())) return std::nullopt;
  void* value = nullptr;
  UINT length = 0;
  if (!::VerQueryValueW(data.data(), L"\\", &value, &length) || length < sizeof(VS_FIXEDFILEINFO)) return std::nullopt;
  const auto* info = static_cast<const VS_FIXEDFILEINFO*>(value);
  return Parts(info->dwFileVersionMS, info->dwFileVersionLS);
}

std::optional<std::string> ToolVersion() { return FileVersionOf(GetModuleFilePath(nullptr)); }

Check CheckLibraryVersion(const std::wstring& library, const std::optional<std::string>& toolVersion) {
  const std::optional<std::string> libraryVersion = FileVersionOf(library);
  const std::string tool = "ambrel-diagnose " + toolVersion.value_or("(no version resource)");
  Check check{"library.version", Verdict::Ok, "", {}};
  const bool same = toolVersion && libraryVersion && *toolVersion == *libraryVersion;
  if (!libraryVersion) {
    check.verdict = Verdict::Info;
    check.text = tool + "; the judged Ambrel.dll has no readable version: this report applies the rules of Ambrel " +
                 toolVersion.value_or("?");
  } else if (same) {
    check.text = tool + " judges with the code of Ambrel " + *libraryVersion + ", the version of the judged library";
  } else {
    check.verdict = Verdict::Warn;
    check.text = "versions differ: " + tool + " judges with the code of Ambrel " + toolVersion.value_or("?") +
                 ", but the judged Ambrel.dll is " + *libraryVersion +
                 ": its bootstrap may not do what this report says; use the ambrel-diagnose shipped with it";
  }
  check.fields = {{"toolVersion", toolVersion ? Value(*toolVersion) : Value(nullptr)},
                  {"libraryVersion", libraryVersion ? Value(*libraryVersion) : Value(nullptr)},
                  {"same", same}};
  return check;
}

}  // namespace ambrel::diagnose
