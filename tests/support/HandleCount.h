// The number of kernel handles this process holds, for tests that check that
// an operation gives back every handle it opened. GetProcessHandleCount always
// answers 0 under Wine, so this walks the system handle table instead.
#pragma once

#include <cstddef>

namespace ambrel::test {

// Entries of this process in the system handle table; 0 when it cannot be read.
std::size_t CountProcessHandles();

}  // namespace ambrel::test
