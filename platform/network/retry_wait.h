#pragma once

#include "platform/threads/thread_annotations.h"
#include "platform/threads/wake_event.h"

#include <chrono>

namespace ravelin::platform {

/// A wait that ends early on `interrupt()` and, if told so, when a network comes up. Time while the
/// machine is suspended counts.
///
/// Threads: one waits, any may interrupt.
class RetryWait {
public:
  explicit RetryWait(bool ends_with_network);
  ~RetryWait();
  RetryWait(const RetryWait&) = delete;
  RetryWait& operator=(const RetryWait&) = delete;

  void wait(std::chrono::milliseconds time) BG_ONLY;
  /// Ends the current wait, or else the next one as soon as it starts.
  void interrupt() { interrupted_.set(); }

private:
  WakeEvent interrupted_;
  int timer_ = -1;           // its clock also runs while the machine is suspended
  int address_monitor_ = -1; // netlink socket
};

} // namespace ravelin::platform
