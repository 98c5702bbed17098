#pragma once

namespace ravelin::platform {

/// A descriptor that is readable from `set()` to `clear()`, to wake a poll loop.
class WakeEvent {
public:
  WakeEvent();
  ~WakeEvent();
  WakeEvent(const WakeEvent&) = delete;
  WakeEvent& operator=(const WakeEvent&) = delete;

  void set() noexcept;
  void clear() noexcept;
  /// Blocks until it is set; may return early.
  void wait() noexcept;
  int descriptor() const { return descriptor_; }

private:
  int descriptor_;
};

} // namespace ravelin::platform
