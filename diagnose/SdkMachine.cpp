#include "diagnose/SdkMachine.h"

#include <windows.h>

#include <cstdint>
#include <optional>

#include "diagnose/Hex.h"
#include "diagnose/PeImage.h"

namespace ambrel::diagnose {
namespace {

// "x86 (0x014C)": the name, then four upper-case hex digits, as machines are written.
std::string Described(WORD machine) {
  return std::string(MachineName(machine)) + " (" + Hex(machine, 2 * sizeof machine) + ")";
}

}  // namespace

std::string CheckSdkMachine(std::vector<Check>& report, const std::wstring& file) {
  if (file.empty()) {
    report.push_back(Check{"sdk.machine", Verdict::Skip, "no file to read", {}});
    return {};
  }
  const std::optional<WORD> machine = ReadImageMachine(file);
  const WORD host = ThisProcessMachine();
  if (!machine) {
    report.push_back(
        Check{"sdk.machine",
              Verdict::Warn,
              "the file is not a readable PE image",
              {{"machine", nullptr}, {"hostMachine", std::string(MachineName(host))}, {"loadable", false}}});
    return "the SDK file is not a readable DLL";
  }
  const bool loadable = *machine == host;
  Check check{"sdk.machine",
              loadable ? Verdict::Ok : Verdict::Warn,
              loadable ? Described(*machine) + ", as the host"
                       : Described(*machine) + ": LoadLibraryW in an " + MachineName(host) +
                             " host refuses it (error 193, ERROR_BAD_EXE_FORMAT)",
              {{"machine", std::string(MachineName(*machine))},
               {"machineCode", std::int64_t{*machine}},
               {"hostMachine", std::string(MachineName(host))},
               {"loadable", loadable}}};
  report.push_back(std::move(check));
  if (loadable) return {};
  return std::string("the SDK file is an ") + MachineName(*machine) + " DLL, which LoadLibraryW in an " +
         MachineName(host) + " host refuses (error 193)";
}

}  // namespace ambrel::diagnose
