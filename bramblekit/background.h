#pragma once

#include <functional>

namespace ravelin::bramblekit {

/// Runs `task` once on a background thread after `delay` seconds, and returns at once. Tasks may
/// run side by side and in any order.
void bg_async(double delay, std::function<void()> task);

/// Background work for which its starter is about to wait, and which it may do itself meanwhile.
///
/// Threads: made and worked by the one that waits; `take` is called while that one is blocked.
class OwnWork {
public:
  OwnWork() = default;
  ~OwnWork();
  OwnWork(const OwnWork&) = delete;
  OwnWork& operator=(const OwnWork&) = delete;

  /// Keeps `task` for `work()`; a second one goes to `bg_async`.
  void take(std::function<void()> task);
  /// Runs what was taken. An exception that leaves it ends the process.
  void work() noexcept;

private:
  std::function<void()> task_;
};

} // namespace ravelin::bramblekit
