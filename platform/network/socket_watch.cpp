#include "platform/network/socket_watch.h"

#include <cerrno>
#include <system_error>
#include <unistd.h>

namespace ravelin::platform {

SocketWatch::SocketWatch() : descriptor_(epoll_create1(EPOLL_CLOEXEC)) {
  if (descriptor_ < 0)
    throw std::system_error(errno, std::system_category(), "could not create an epoll descriptor");
}

SocketWatch::~SocketWatch() {
  if (descriptor_ >= 0)
    close(descriptor_);
}

int SocketWatch::control(int operation, int descriptor, std::uint32_t events) {
  epoll_event event{};
  event.events = events;
  event.data.fd = descriptor;
  return epoll_ctl(descriptor_, operation, descriptor, &event);
}

void SocketWatch::watch(int descriptor, std::uint32_t events) {
  // If the system refuses, the connection stays silent and its request times out.
  if (control(EPOLL_CTL_ADD, descriptor, events) != 0 && errno == EEXIST)
    control(EPOLL_CTL_MOD, descriptor, events);
}

void SocketWatch::change(int descriptor, std::uint32_t events) {
  // The number may have been reused after its socket was closed without `unwatch()`.
  if (control(EPOLL_CTL_MOD, descriptor, events) != 0)
    watch(descriptor, events);
}

void SocketWatch::unwatch(int descriptor) {
  epoll_ctl(descriptor_, EPOLL_CTL_DEL, descriptor,
            nullptr); // fails harmlessly if it is closed already
}

std::optional<std::span<const epoll_event>> SocketWatch::wait(std::chrono::milliseconds time) {
  const auto count = epoll_wait(descriptor_, ready_.data(), static_cast<int>(ready_.size()),
                                static_cast<int>(time.count()));
  if (count < 0 && errno != EINTR)
    return std::nullopt;
  return std::span(ready_.data(), static_cast<std::size_t>(count < 0 ? 0 : count));
}

} // namespace ravelin::platform
