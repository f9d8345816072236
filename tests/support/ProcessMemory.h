// Committed private memory of this process, for soak runs and benchmarks that
// check that repeated operations give their memory back.
#pragma once

namespace ambrel::test {

// GetProcessMemoryInfo's PrivateUsage where the system fills it in; it answers
// 0 under Wine, and then the address space is walked instead: the sum of the
// committed pages of private (not image, not mapped-file) regions.
long long PrivateBytes();

// Bytes in allocated blocks of all the process's heaps (HeapWalk). Unlike
// committed memory, which a heap keeps after its blocks are freed, this falls
// back when memory is given back.
long long HeapBytesInUse();

}  // namespace ambrel::test
