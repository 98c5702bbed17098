#pragma once

#include <array>
#include <chrono>
#include <optional>
#include <span>
#include <sys/epoll.h>
#include <utility>

namespace ravelin::platform {

/// Waits for any of many descriptors, by epoll.
///
/// Threads: one. Ownership: does not own the descriptors.
class SocketWatch {
public:
  /// Throws `std::system_error` if there is no descriptor left.
  SocketWatch();
  ~SocketWatch();
  SocketWatch(const SocketWatch&) = delete;
  SocketWatch& operator=(const SocketWatch&) = delete;

  /// `events`: `EPOLLIN`, `EPOLLOUT` or both.
  void watch(int descriptor, std::uint32_t events);
  void change(int descriptor, std::uint32_t events);
  void unwatch(int descriptor);
  /// The descriptors (`data.fd`) that are ready within `time`; nothing if somebody has closed our
  /// own. Valid until the next call.
  std::optional<std::span<const epoll_event>> wait(std::chrono::milliseconds time);
  /// After our own descriptor was closed.
  void replace_by(SocketWatch& other) { descriptor_ = std::exchange(other.descriptor_, -1); }

private:
  int control(int operation, int descriptor, std::uint32_t events);

  int descriptor_;
  std::array<epoll_event, 64> ready_;
};

} // namespace ravelin::platform
