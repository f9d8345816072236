// A small host that loads Ambrel.dll the way Kalvex does and shows what the
// library does, step by step. It runs in the build tree's Wine prefix and keeps
// to a sandbox: HKLM and HKCU are redirected to scratch keys, the shared
// components are a scratch folder, and every environment change is undone.
#include <windows.h>

#include <cstdio>
#include <string>

#include "Ambrel.h"
#include "tests/support/TestSupport.h"

namespace {

using ambrel::test::Narrow;
using ambrel::test::RegistrySandbox;
using ambrel::test::ScratchDir;

const wchar_t kSharedComponentsKey[] = L"SOFTWARE\\Tavrel\\SharedComponents\\2026";

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
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"InstallPath", shared.path());
  RegistrySandbox::SetString(HKEY_LOCAL_MACHINE, kSharedComponentsKey, L"Version", L"2026.1");
  Show("InstallPath", shared.path());
  Show("Version", std::wstring(L"2026.1"));
  Show("QelLoadHelper::IsQELInstalled()", QelLoadHelper::IsQELInstalled());

  std::printf("  -- the version folder removed\n");
  ::RemoveDirectoryW((shared / L"2026.1").c_str());
  Show("QelLoadHelper::IsQELInstalled()", QelLoadHelper::IsQELInstalled());
  shared.MakeDir(L"2026.1");
}

}  // namespace

int main() {
  std::printf("Ambrel sample host\n");
  try {
    RegistrySandbox registry;
    std::printf("  registry sandbox: HKLM and HKCU redirected to HKCU\\%s\n", Narrow(registry.ScratchKeyPath()).c_str());
    ScratchDir shared;
    ShowInstallationQueries(shared);
  } catch (const std::exception& error) {
    std::printf("sample host failed: %s\n", error.what());
    return 1;
  }
  std::printf("\nDone.\n");
  return 0;
}
