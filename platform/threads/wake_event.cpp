#include "platform/threads/wake_event.h"

#include "platform/fatal.h"

#include <cstdint>
#include <sys/eventfd.h>
#include <unistd.h>

namespace ravelin::platform {

WakeEvent::WakeEvent() : descriptor_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
  if (descriptor_ < 0)
    fatal("no descriptor is left to wake a thread with");
}

WakeEvent::~WakeEvent() {
  close(descriptor_);
}

void WakeEvent::set() noexcept {
  const std::uint64_t one = 1;
  [[maybe_unused]] const auto written = write(descriptor_, &one, sizeof one); // full means set
}

void WakeEvent::clear() noexcept {
  std::uint64_t count = 0;
  [[maybe_unused]] const auto got = read(descriptor_, &count, sizeof count); // empty means cleared
}

} // namespace ravelin::platform
