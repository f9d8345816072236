// A host source that only includes the library's header: Ambrel.h must stop
// it when its C++ runtime cannot share objects with the library's.
#include "Ambrel.h"

int main() { return OSxMisc::IsEnglish() ? 0 : 1; }
