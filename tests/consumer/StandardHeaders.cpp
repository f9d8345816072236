// A host source that includes Ambrel.h among the standard headers a host
// commonly uses, compiled with the consumer's warnings as C++17 and C++20: the
// runtime's headers must stand /permissive- (std::abs of long, type_info
// compared with != before C++20).
#include <windows.h>
#include <delayimp.h>
#include <algorithm>
#include <any>
#include <array>
#include <atomic>
#include <bitset>
#include <charconv>
#include <chrono>
#include <cmath>
#include <complex>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iomanip>
#include <iostream>
#include <list>
#include <locale>
#include <map>
#include <memory>
#include <mutex>
#include <numeric>
#include <optional>
#include <random>
#include <regex>
#include <set>
#include <shared_mutex>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <tuple>
#include <unordered_map>
#include <unordered_set>
#include <valarray>
#include <variant>
#include <vector>
#include "Ambrel.h"

// Called by no one: compiled, not run.
int StandardHeadersCompile() {
  long l = -3;
  long long q = -4;
  float f = -1.f;
  const auto d = std::div(7L, 2L);
  const std::any value = 1;
  return static_cast<int>(std::abs(l) + std::abs(q) + std::abs(f) + std::labs(l) + std::llabs(q) + d.quot +
                          std::abs(-1) + std::fabs(-2.0)) +
         (value.type() != typeid(int) ? 1 : 0) + (std::any_cast<int>(&value) != nullptr ? 1 : 0);
}
