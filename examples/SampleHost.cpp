// A small host that loads Ambrel.dll the way Kalvex does and shows what the
// library does, step by step. It runs in the build tree's Wine prefix and keeps
// to a sandbox: HKLM and HKCU are redirected to scratch keys, the shared
// components and the user's local application data are scratch folders, the
// installer SDK is the project's signed stand-in, and every environment change
// is undone.
#include <windows.h>

#include <cstdio>
#include <filesystem>
#include <string>

#include "Ambrel.h"
#include "tests/sandbox/Sandbox.h"

// The one delay-loaded import of this host (see examples/CMakeLists.txt).
extern "C" __declspec(dllimport) unsigned SampleComponentPath(wchar_t* buffer, unsigned size);

#if defined(_MSC_VER)
// Compiler-specific: MSVC's delay-load helper reads a constant hook pointer.
extern "C" const PfnDliHook __pfnDliFailureHook2 = QelLoadHelper::DelayLoadHook;
#endif

namespace {

using ambrel::test::EnvGuard;
using ambrel::test::Narrow;
using ambrel::test::RegistrySandbox;
using ambrel::test::ScratchDir;
using ambrel::test::TestBinDirectory;

const wchar_t kMarker[] = L"QEL_INITIALIZE_BYPASSED";

void Heading(const char* text) { std::printf("\n== %s\n", text); }

void Show(const char* label, const std::wstring& value) { std::printf("  %-34s %s\n", label, Narrow(value).c_str()); }

void Show(const char* label, bool value) { std::printf("  %-34s %s\n", label, value ? "true" : "false"); }

void ShowInstallationQueries(const ScratchDir& shared) {
  Heading("Installation queries");
  Show("library module", [] {
    wchar_t file[MAX_PATH] = {};
    ::GetModuleFileNameW(::GetModuleHandleW(L"Ambrel.dll"), file, MAX_PATH);
    return std::wstring(file);
  }());
  Show("QelLoadHelper::IsDevelopment()", QelLoadHelper::IsDevelopment());
  Show("QelLoadHelper::IsQELInstalled()", QelLoadHelper::IsQELInstalled());

  std::printf("  -- registering release 2026 in the sandbox: InstallPath and Version\n");
  shared.MakeDir(L"2026.1");
  ambrel::test::WriteInstallEntry(shared.path(), L"2026.1", std::nullopt);
  Show("InstallPath", shared.path());
  Show("Version", std::wstring(L"2026.1"));
  Show("QelLoadHelper::IsQELInstalled()", QelLoadHelper::IsQELInstalled());

  std::printf("  -- the version folder removed\n");
  ::RemoveDirectoryW((shared / L"2026.1").c_str());
  Show("QelLoadHelper::IsQELInstalled()", QelLoadHelper::IsQELInstalled());
  shared.MakeDir(L"2026.1");
}

std::wstring Variable(const wchar_t* name) {
  const auto value = EnvGuard::Get(name);
  return value ? *value : L"(not set)";
}

// The installer side of the sandbox: the signed stand-in SDK registered where
// the wrapper looks for it, its call record, and a scratch LOCALAPPDATA for the
// wrapper's log.
struct Installer {
  std::wstring record;
  std::wstring log;
};

Installer SetUpInstaller(const ScratchDir& work, EnvGuard& env) {
  const std::wstring sdk = TestBinDirectory() + L"\\standin_sdk\\signed\\StandInSdk.dll";
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, L"SOFTWARE\\Tavrel\\HALDO", L"HALDOSDKLocation", sdk);
  const std::wstring localAppData = work.MakeDir(L"LocalAppData");
  work.MakeDir(L"LocalAppData\\Tavrel\\HALDO");
  env.Set(L"LOCALAPPDATA", localAppData);
  Installer installer{work / L"sdk-calls.txt", localAppData + L"\\Tavrel\\HALDO\\HALDO_APIWrapper.log"};
  env.Set(L"AMBREL_STANDIN_SDK_RECORD", installer.record);
  Heading("Installer service (sandbox)");
  Show("HALDOSDKLocation", sdk);
  Show("stand-in SDK present", ::GetFileAttributesW(sdk.c_str()) != INVALID_FILE_ATTRIBUTES);
  Show("LOCALAPPDATA", localAppData);
  return installer;
}

// Prints what the stand-in SDK was asked and what the wrapper logged since the
// last call, then forgets both.
void ShowInstallerActivity(const Installer& installer) {
  std::printf("  -- installer SDK calls (recorded by the stand-in):\n");
  const auto lines = ambrel::test::SplitLines(ambrel::test::ReadFileBytes(installer.record));
  if (lines.empty()) std::printf("     (none)\n");
  for (std::string line : lines) {
    for (char& c : line)
      if (c == '\t') c = ' ';
    std::printf("     %s\n", line.c_str());
  }
  ::DeleteFileW(installer.record.c_str());

  std::printf("  -- the wrapper's log (%s):\n", Narrow(installer.log).c_str());
  const auto logLines = ambrel::test::SplitLines(ambrel::test::ReadFileBytes(installer.log));
  if (logLines.empty()) std::printf("     (nothing written)\n");
  for (const std::string& line : logLines) std::printf("     %s\n", line.c_str());
  ::DeleteFileW(installer.log.c_str());
}

// The delay-load helper reports a DLL it could not load as an exception.
// Compiler-specific: structured exception handling (-fms-extensions on clang,
// which only catches what a called function raises, hence noinline; MSVC
// wants no objects to unwind in the function).
__declspec(noinline) bool TryCallSharedComponent(wchar_t* path, unsigned size) {
  __try {
    SampleComponentPath(path, size);
  } __except (GetExceptionCode() == 0xC06D007E ? EXCEPTION_EXECUTE_HANDLER : EXCEPTION_CONTINUE_SEARCH) {
    return false;
  }
  return true;
}

std::wstring CallSharedComponent() {
  wchar_t path[MAX_PATH] = {};
  if (!TryCallSharedComponent(path, MAX_PATH)) return L"(not loaded: the delay-load helper raised 0xC06D007E)";
  return path;
}

void ShowDelayLoad(const std::wstring& versionDir, const Installer& installer) {
  Heading("Delay-loaded DLL through QelLoadHelper::DelayLoadHook");
  const std::filesystem::path component = AMBREL_SAMPLE_COMPONENT;
  std::filesystem::copy_file(component, std::filesystem::path(versionDir) / component.filename(),
                             std::filesystem::copy_options::overwrite_existing);
  Show("component placed in", versionDir);
  Show("host folder (no copy there)", TestBinDirectory());
#if !defined(_MSC_VER)
  __pfnDliFailureHook2 = QelLoadHelper::DelayLoadHook;
#endif
  std::printf("  -- calling SampleComponentPath(): the ordinary search fails, the hook finds it\n");
  Show("loaded from", CallSharedComponent());
  ShowInstallerActivity(installer);
}

void ShowBootstrap(const Installer& installer) {
  Heading("Bootstrap: InitializeQel()");
  Show("PATH before", Variable(L"PATH"));
  Show(Narrow(kMarker).append(" before").c_str(), Variable(kMarker));
  const bool result = InitializeQel();
  Show("InitializeQel()", result);
  Show("PATH after", Variable(L"PATH"));
  Show("OSxFolder::GetSharedDllPath()", std::wstring(OSxFolder::GetSharedDllPath()));
  Show(Narrow(kMarker).append(" after").c_str(), Variable(kMarker));
  ShowInstallerActivity(installer);

  std::printf("  -- afterwards\n");
  Show("InitializeQel() again", InitializeQel());
  Show("GetSharedDllPath() (bypassed now)", std::wstring(L"\"") + GetSharedDllPath() + L"\"");
  ShowInstallerActivity(installer);
}

void ShowChildProcess(const Installer& installer) {
  Heading("A child process inherits the marker");
  wchar_t self[MAX_PATH] = {};
  ::GetModuleFileNameW(nullptr, self, MAX_PATH);
  const auto child = ambrel::test::RunProcess(self, L"--child");
  for (const std::string& line : ambrel::test::SplitLines(child.output)) std::printf("  %s\n", line.c_str());
  ShowInstallerActivity(installer);
}

// What the child started by ShowChildProcess prints.
int ChildMain() {
  Show("child: QEL_INITIALIZE_BYPASSED", Variable(kMarker));
  Show("child: InitializeQel()", InitializeQel());
  return 0;
}

void ShowCallStack() {
  Heading("Call stack: OSxMisc::GetCallStack()");
  std::wstring stack;
  if (OSxMisc::GetCallStack(stack)) {
    std::printf("%s", Narrow(stack).c_str());
  } else {
    std::printf("  OSxMisc::GetCallStack() failed: dbghelp.dll is not available\n");
  }
}

// The support engineers' program on the sandbox built above, as a child that
// reads the same scratch registry keys: its test build, whose
// --registry-sandbox the shipped program does not have.
// The marker is dropped for the child, so it judges the machine as a fresh
// host process would; PATH still holds the folder this host put there.
void ShowDiagnosis(const RegistrySandbox& registry, EnvGuard& env) {
  Heading("ambrel-diagnose on this sandbox");
  env.Unset(kMarker);
  const auto result = ambrel::test::RunProcess(TestBinDirectory() + L"\\ambrel-diagnose-sandboxed.exe",
                                               L"--registry-sandbox \"" + registry.ScratchKeyPath() + L"\"");
  for (const std::string& line : ambrel::test::SplitLines(result.output)) std::printf("  %s\n", line.c_str());
  std::printf("  (exit code %s)\n", ambrel::test::ExitCodeText(result.exitCode).c_str());
}

}  // namespace

int main(int argc, char** argv) {
  if (argc > 1 && std::string(argv[1]) == "--child") return ChildMain();
  std::printf("Ambrel sample host\n");
  try {
    RegistrySandbox registry;
    std::printf("  registry sandbox: HKLM and HKCU redirected to HKCU\\%s\n",
                Narrow(registry.ScratchKeyPath()).c_str());
    EnvGuard env{L"PATH",
                 kMarker,
                 L"QEL_PATH_2026",
                 L"LOCALAPPDATA",
                 L"AMBREL_STANDIN_SDK_RECORD",
                 L"AMBREL_STANDIN_SDK_CONFIG"};
    env.Unset(kMarker);
    ScratchDir shared;
    ScratchDir work;
    ShowInstallationQueries(shared);
    const Installer installer = SetUpInstaller(work, env);
    ShowDelayLoad(shared / L"2026.1", installer);
    ShowBootstrap(installer);
    ShowChildProcess(installer);
    ShowCallStack();
    ShowDiagnosis(registry, env);
  } catch (const std::exception& error) {
    std::printf("sample host failed: %s\n", error.what());
    return 1;
  }
  std::printf("\nDone.\n");
  return 0;
}
