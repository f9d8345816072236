// The host of bench_startup, built twice from this file: with AMBREL_HOST_LINKS
// it imports Ambrel.dll (as Kalvex does) and calls one export, so the loader
// maps the library and its imports at start; without, it is the same program
// with no library. Both link the shared C++ runtime, as a host does.
#include <cstdio>
#include <string>

#ifdef AMBREL_HOST_LINKS
#include "Ambrel.h"
#endif

int main() {
  std::string text = "host";
#ifdef AMBREL_HOST_LINKS
  if (QelLoadHelper::IsDevelopment()) text += " on drive R:";
#endif
  return text.empty() ? 1 : 0;
}
