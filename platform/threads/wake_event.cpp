#include "platform/threads/wake_event.h"

#include "platform/fatal.h"

#include <cstdint>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace ravelin::platform {

WakeEvent::WakeEvent() : descriptor_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (descriptor_ < 0)
    fatal("could not create an eventfd");
}

WakeEvent::~WakeEvent() {
  close(descriptor_);
}

void WakeEvent::set() noexcept {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(descriptor_, &one, sizeof one); // EAGAIN if set
}

void WakeEvent::clear() noexcept {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto got = read(descriptor_, &count, sizeof count); // EAGAIN if clear
}

void WakeEvent::wait() noexcept {
  pollfd watched{descriptor_, POLLIN, 0};
  poll(&watched, 1, -1); // may return early; callers check and wait again
}

} // namespace ravelin::platform
