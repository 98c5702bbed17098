#include "platform/network/network_interfaces.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

namespace ravelin::platform {

bool any_network_is_up() {
  ifaddrs* first = nullptr;
  if (getifaddrs(&first) != 0)
    return true; // unknown: do not report a missing network
  bool found = false;
  for (const auto* each = first; each && !found; each = each->ifa_next) {
    const bool addressed = each->ifa_addr && (each->ifa_addr->sa_family == AF_INET ||
                                              each->ifa_addr->sa_family == AF_INET6);
    found = addressed && (each->ifa_flags & IFF_UP) && !(each->ifa_flags & IFF_LOOPBACK);
  }
  freeifaddrs(first);
  return found;
}

} // namespace ravelin::platform
