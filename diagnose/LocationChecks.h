// The install-location half of the look at the machine: the session's
// lookup, then the bootstrap's look at the process.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "diagnose/Checks.h"
#include "qel_loader/Bootstrap.h"

namespace ambrel::diagnose {

// The folder the bootstrap would take, and whether the process can be
// prepared for it; `cause` says why not.
struct Located {
  bool usable = false;  // found and long enough: the session asks the installer to lock it
  std::wstring folder;
  std::optional<ProcessPreparation> preparation;  // absent when no usable folder was found
  std::string cause;
};

// The checks registry.key to location, in the session's order.
Located CheckInstallLocation(std::vector<Check>& report);

// The check "path": what the bootstrap would do with PATH.
void RenderPath(std::vector<Check>& report, const Located& located);

}  // namespace ambrel::diagnose
