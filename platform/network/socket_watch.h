#pragma once

#include <array>
#include <chrono>
#include <span>
#include <sys/epoll.h>

namespace ravelin::platform {

/// Waits until one of many descriptors is ready; the wait costs no more for those that are idle.
///
/// Threads: one. Ownership: descriptors stay their owner's.
class SocketWatch {
public:
  SocketWatch();
  ~SocketWatch();
  SocketWatch(const SocketWatch&) = delete;
  SocketWatch& operator=(const SocketWatch&) = delete;

  /// Watches `descriptor` for `events` (`EPOLLIN`, `EPOLLOUT`).
  void watch(int descriptor, std::uint32_t events);
  /// Watches it for other events from now on.
  void change(int descriptor, std::uint32_t events);
  void forget(int descriptor);
  /// What is ready now or within `time`, valid until the next call; each has its `data.fd`.
  std::span<const epoll_event> wait(std::chrono::milliseconds time);

private:
  int control(int operation, int descriptor, std::uint32_t events);

  int descriptor_;
  std::array<epoll_event, 64> ready_;
};

} // namespace ravelin::platform
