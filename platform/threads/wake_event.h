#pragma once

#include <utility>

namespace ravelin::platform {

/// A descriptor that is readable from `set()` to `clear()`, to wake a poll loop.
class WakeEvent {
public:
  /// Throws `std::system_error` if there is no descriptor left.
  WakeEvent();
  ~WakeEvent();
  WakeEvent(const WakeEvent&) = delete;
  WakeEvent& operator=(const WakeEvent&) = delete;

  void set() noexcept;
  void clear() noexcept;
  /// After its descriptor was closed by somebody else.
  void replace_by(WakeEvent& other) { descriptor_ = std::exchange(other.descriptor_, -1); }
  int descriptor() const { return descriptor_; }

private:
  int descriptor_;
};

} // namespace ravelin::platform
