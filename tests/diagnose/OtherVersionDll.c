// A DLL named Ambrel.dll that is another version of it (OtherVersion.rc):
// ambrel-diagnose only reads the file it judges.
int AmbrelOtherVersion(void);
int AmbrelOtherVersion(void) { return 9; }
