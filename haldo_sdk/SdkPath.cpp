#include "haldo_sdk/SdkPath.h"

#include <system_error>

#include "common/Environment.h"
#include "common/FileSystemStatus.h"
#include "haldo_sdk/RegistryBuffer.h"
#include "haldo_sdk/WrapperLog.h"

namespace ambrel {

SdkPathLookup LookUpSdkPath() {
  SdkPathLookup lookup;
  wchar_t* raw = nullptr;
  lookup.read = ReadSdkLocationValue(&raw);
  if (lookup.read != SdkLocationRead::Read || !raw) {
    lookup.outcome = SdkPathLookup::Outcome::RegistryUnreadable;
    return lookup;
  }
  const RegistryBuffer owner(raw);
  lookup.value = raw;
  if (lookup.value.empty()) {
    lookup.outcome = SdkPathLookup::Outcome::Empty;
    return lookup;
  }

  const PathExpansion expanded = ExpandEnvironmentPath(lookup.value.c_str());
  if (expanded.needed == 0) {
    lookup.outcome = SdkPathLookup::Outcome::ExpansionFailed;
    return lookup;
  }
  lookup.expanded = expanded.text;
  // An expansion that did not fit names no usable file; and only the lock-file
  // test may raise, so an unexpected error here also counts as "missing".
  std::error_code ec;
  lookup.outcome = expanded.fits() && PathExists(expanded.text, ec) ? SdkPathLookup::Outcome::Found
                                                                    : SdkPathLookup::Outcome::Missing;
  return lookup;
}

std::wstring GetDllPath(const SdkPathLookup& lookup) {
  switch (lookup.outcome) {
    case SdkPathLookup::Outcome::RegistryUnreadable:
      LogLocationReadFailure(lookup.read);  // ReadStringFromRegistry's own line first, as it has always come
      LogWrapperError("GetDllPath: Failed to read registry!");
      return {};
    case SdkPathLookup::Outcome::Empty: return {};
    case SdkPathLookup::Outcome::ExpansionFailed: LogWrapperError("GetDllPath: Failed to expand dll path!"); return {};
    case SdkPathLookup::Outcome::Missing: LogWrapperError("GetDllPath: expanded Dll Path does not exist!"); return {};
    case SdkPathLookup::Outcome::Found: return lookup.expanded;
  }
  return {};  // GCOVR_EXCL_LINE every outcome is handled above
}

}  // namespace ambrel
