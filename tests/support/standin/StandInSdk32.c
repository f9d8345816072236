// The stand-in SDK built for 32-bit Windows: the five exports by name and
// nothing else (no C runtime, no imports), signed like the 64-bit copy. A
// 64-bit host's LoadLibraryW refuses it with error 193 before any export is
// bound, so none of them ever runs; they exist so that only the machine
// differs from a healthy SDK.
__declspec(dllexport) int Initialize(void) { return 0; }
__declspec(dllexport) int ReleaseMemory(void) { return 0; }
__declspec(dllexport) int Uninitialize(void) { return 0; }
__declspec(dllexport) int LockDirectory(void) { return 0; }
__declspec(dllexport) int UnLockDirectory(void) { return 0; }

int __stdcall StandInEntry(void* module, unsigned long reason, void* reserved);
int __stdcall StandInEntry(void* module, unsigned long reason, void* reserved) {
  (void)module;
  (void)reason;
  (void)reserved;
  return 1;
}
