// ambrel-diagnose: why InitializeQel succeeds or fails on this machine.
#include <windows.h>

#include <iostream>
#include <string>
#include <string_view>

#include "common/ModuleHelpers.h"
#include "common/TextConvert.h"
#include "common/WinResource.h"
#include "diagnose/Checks.h"
#include "diagnose/Output.h"
#include "diagnose/SdkSession.h"

namespace {

constexpr std::string_view kUsage =
    "usage: ambrel-diagnose [--json] [--with-sdk] [--library <path of Ambrel.dll>]\n"
    "\n"
    "Looks at this machine as InitializeQel would and prints one line per check,\n"
    "then what InitializeQel would do. Writes nothing: no registry, no environment\n"
    "of the caller, no log; the installer SDK is neither locked, loaded nor called.\n"
    "\n"
    "  --json      the same checks as one JSON document\n"
    "  --with-sdk  afterwards run one real session with the installer SDK\n"
    "              (Initialize, LockInstallLocation, Uninitialize) and print its\n"
    "              status codes and messages; the SDK is loaded and called, and\n"
    "              the session's wrapper writes its log as in a host\n"
    "  --library   the Ambrel.dll to judge (default: the one beside this program)\n"
    "\n"
    "Exit code: 0 when the bootstrap would succeed, 1 when it would fail, 2 on bad usage.\n";

#ifdef AMBREL_DIAGNOSE_REGISTRY_SANDBOX
// Test build only (ambrel-diagnose-sandboxed.exe, never shipped): with
// --registry-sandbox <key> it reads HKLM and HKCU from HKCU\<key>\HKLM and
// HKCU\<key>\HKCU, the scratch keys the test suite's registry sandbox makes,
// so a test can judge a sandbox it built. In a shipped program any user could
// point HKLM at a key of their own and print a "healthy" report.
bool RedirectRegistry(const std::wstring& scratchKey) {
  ambrel::UniqueRegKey hklm;
  ambrel::UniqueRegKey hkcu;
  if (::RegOpenKeyExW(HKEY_CURRENT_USER, (scratchKey + L"\\HKLM").c_str(), 0, KEY_READ, hklm.put()) != ERROR_SUCCESS ||
      ::RegOpenKeyExW(HKEY_CURRENT_USER, (scratchKey + L"\\HKCU").c_str(), 0, KEY_READ, hkcu.put()) != ERROR_SUCCESS) {
    return false;
  }
  return ::RegOverridePredefKey(HKEY_LOCAL_MACHINE, hklm.get()) == ERROR_SUCCESS &&
         ::RegOverridePredefKey(HKEY_CURRENT_USER, hkcu.get()) == ERROR_SUCCESS;
}
#endif

int BadUsage(const std::string& problem) {
  std::cerr << "ambrel-diagnose: " + problem + "\n\n" + std::string(kUsage);
  return 2;
}

}  // namespace

int wmain(int argc, wchar_t** argv) {
  bool json = false;
  bool withSdk = false;
  std::wstring library = ambrel::GetThisModuleDirectory() + L"\\Ambrel.dll";
  for (int i = 1; i < argc; ++i) {
    const std::wstring arg = argv[i];
    if (arg == L"--json") {
      json = true;
    } else if (arg == L"--with-sdk") {
      withSdk = true;
    } else if (arg == L"--help" || arg == L"-h" || arg == L"/?") {
      std::cout << kUsage << std::flush;
      return 0;
    } else if (arg == L"--library") {
      if (i + 1 >= argc) return BadUsage("--library needs a value");
      library = argv[++i];
#ifdef AMBREL_DIAGNOSE_REGISTRY_SANDBOX
    } else if (arg == L"--registry-sandbox") {
      if (i + 1 >= argc) return BadUsage("--registry-sandbox needs a value");
      const std::wstring value = argv[++i];
      if (!RedirectRegistry(value)) return BadUsage("no registry sandbox at HKCU\\" + ambrel::WideToUtf8(value));
#endif
    } else {
      return BadUsage("unknown argument " + ambrel::WideToUtf8(arg));
    }
  }

  try {
    ambrel::diagnose::Diagnosis diagnosis = ambrel::diagnose::Diagnose(library);
    if (withSdk) diagnosis.sdkSession = ambrel::diagnose::RunSdkSession();
    const std::string report = json ? ambrel::diagnose::FormatJson(diagnosis) : ambrel::diagnose::FormatText(diagnosis);
    std::cout << report.c_str() << std::flush;  // C text: it ends at a NUL
    return ambrel::diagnose::ExitCodeOf(diagnosis);
  } catch (const std::exception& error) {
    std::cerr << "ambrel-diagnose: " + std::string(error.what()) + "\n";
    return 1;
  }
}
