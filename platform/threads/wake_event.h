#pragma once

namespace ravelin::platform {

/// A descriptor that is readable from `set()` until `clear()`. Wakes a loop that polls.
class WakeEvent {
public:
  WakeEvent();
  ~WakeEvent();
  WakeEvent(const WakeEvent&) = delete;
  WakeEvent& operator=(const WakeEvent&) = delete;

  void set() noexcept;
  void clear() noexcept;
  int descriptor() const { return descriptor_; }

private:
  int descriptor_;
};

} // namespace ravelin::platform
