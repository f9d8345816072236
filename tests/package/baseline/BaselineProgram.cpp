// A console program with no code of the library's: what the toolchain's
// start-up code imports on its own, linked as ambrel-diagnose.exe is
// (package.images).
int wmain() { return 0; }
