// A cleanup that runs when the scope ends, on every path (also when an
// exception leaves it): for the one-off undo steps that have no handle type of
// their own (a global to reset, a state to close). The cleanup must not throw.
#pragma once

#include <type_traits>
#include <utility>

namespace ambrel {

template <typename Cleanup>
class [[nodiscard]] ScopeExit {
 public:
  explicit ScopeExit(Cleanup cleanup) noexcept(std::is_nothrow_move_constructible_v<Cleanup>)
      : cleanup_(std::move(cleanup)) {}
  ~ScopeExit() { cleanup_(); }

  ScopeExit(const ScopeExit&) = delete;
  ScopeExit& operator=(const ScopeExit&) = delete;
  ScopeExit(ScopeExit&&) = delete;
  ScopeExit& operator=(ScopeExit&&) = delete;

 private:
  Cleanup cleanup_;
};

}  // namespace ambrel
