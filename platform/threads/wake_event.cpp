#include "platform/threads/wake_event.h"

#include <cerrno>
#include <cstdint>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>

namespace ravelin::platform {

WakeEvent::WakeEvent() : descriptor_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (descriptor_ < 0)
    throw std::system_error(errno, std::system_category(), "could not create an eventfd");
}

WakeEvent::~WakeEvent() {
  if (descriptor_ >= 0)
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

} // namespace ravelin::platform
