#include "platform/network/retry_wait.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/timerfd.h>
#endif

namespace ravelin::platform {
namespace {

#if defined(__linux__)

int open_timer() {
  return timerfd_create(CLOCK_BOOTTIME, TFD_NONBLOCK | TFD_CLOEXEC);
}

void start_timer(int timer, std::chrono::milliseconds time) {
  itimerspec setting{};
  setting.it_value.tv_sec = static_cast<time_t>(time.count() / 1000);
  setting.it_value.tv_nsec = static_cast<long>(time.count() % 1000 * 1'000'000);
  timerfd_settime(timer, 0, &setting, nullptr);
}

int open_address_monitor() {
  const int descriptor =
      ::socket(AF_NETLINK, SOCK_RAW | SOCK_NONBLOCK | SOCK_CLOEXEC, NETLINK_ROUTE);
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;
  address.nl_groups = RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
  if (descriptor >= 0 &&
      ::bind(descriptor, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    ::close(descriptor);
    return -1;
  }
  return descriptor;
}

/// The system also tells of addresses whose time is extended, as routers do every few minutes.
bool is_new(const nlmsghdr& message) {
  constexpr std::uint32_t max_age = 500; // in 1/100 s; IPv6 addresses are tried out before use
  if (message.nlmsg_type != RTM_NEWADDR)
    return false;
  const auto* const bytes = reinterpret_cast<const char*>(&message);
  std::size_t at = NLMSG_SPACE(sizeof(ifaddrmsg));
  rtattr attribute{};
  for (; at + sizeof attribute <= message.nlmsg_len; at += RTA_ALIGN(attribute.rta_len)) {
    std::memcpy(&attribute, bytes + at, sizeof attribute);
    ifa_cacheinfo times{};
    if (attribute.rta_type == IFA_CACHEINFO && attribute.rta_len >= RTA_LENGTH(sizeof times)) {
      std::memcpy(&times, bytes + at + RTA_LENGTH(0), sizeof times);
      return times.tstamp - times.cstamp < max_age;
    }
    if (attribute.rta_len < sizeof attribute)
      break;
  }
  return true;
}

/// Reads pending messages and returns whether an address was added.
bool has_new_address(int monitor) {
  alignas(nlmsghdr) char messages[8192];
  bool added = false;
  for (;;) {
    const auto size = ::recv(monitor, messages, sizeof messages, 0);
    if (size <= 0)
      return added;
    auto left = static_cast<unsigned>(size);
    for (auto* each = reinterpret_cast<nlmsghdr*>(messages); NLMSG_OK(each, left);
         each = NLMSG_NEXT(each, left))
      added = added || is_new(*each);
  }
}

#else

int open_timer() {
  return -1;
}
void start_timer(int, std::chrono::milliseconds) {}
int open_address_monitor() {
  return -1;
}
bool has_new_address(int) {
  return false;
}

#endif

} // namespace

RetryWait::RetryWait(bool ends_with_network)
    : timer_(open_timer()), address_monitor_(ends_with_network ? open_address_monitor() : -1) {}

RetryWait::~RetryWait() {
  for (const int descriptor : {timer_, address_monitor_})
    if (descriptor >= 0)
      ::close(descriptor);
}

void RetryWait::wait(std::chrono::milliseconds time) {
  using Clock = std::chrono::steady_clock;
  if (time <= std::chrono::milliseconds(0))
    return;
  start_timer(timer_, time);
  const auto end = Clock::now() + time;
  pollfd watched[] = {
      {interrupted_.descriptor(), POLLIN, 0}, {timer_, POLLIN, 0}, {address_monitor_, POLLIN, 0}};
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - Clock::now()).count();
    if (left <= 0)
      return;
    if (::poll(watched, 3, static_cast<int>(std::min<std::int64_t>(left, 3600000))) <= 0)
      continue; // timed out, or interrupted by a signal
    if (watched[0].revents || watched[1].revents)
      return;
    if (watched[2].revents && has_new_address(address_monitor_))
      return;
  }
}

} // namespace ravelin::platform
