#pragma once

#include <array>
#include <chrono>
#include <span>
#include <sys/epoll.h>

namespace ravelin::platform {

/// Waits for any of many descriptors, by epoll.
///
/// Threads: one. Ownership: does not own the descriptors.
class SocketWatch {
public:
  SocketWatch();
  ~SocketWatch();
  SocketWatch(const SocketWatch&) = delete;
  SocketWatch& operator=(const SocketWatch&) = delete;

  /// `events`: `EPOLLIN`, `EPOLLOUT` or both.
  void watch(int descriptor, std::uint32_t events);
  void change(int descriptor, std::uint32_t events);
  void unwatch(int descriptor);
  /// The descriptors (`data.fd`) that are ready within `time`. Valid until the next call.
  std::span<const epoll_event> wait(std::chrono::milliseconds time);

private:
  int control(int operation, int descriptor, std::uint32_t events);

  int descriptor_;
  std::array<epoll_event, 64> ready_;
};

} // namespace ravelin::platform
