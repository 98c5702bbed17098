#include "tests/harness/loopback_socket.h"

#include <cerrno>
#include <system_error>
#include <utility>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test {
namespace {

unsigned short bind_to_free_port(int number) {
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof address;
  auto* const general = reinterpret_cast<sockaddr*>(&address);
  const bool done = bind(number, general, size) == 0 && getsockname(number, general, &size) == 0;
  return done ? ntohs(address.sin_port) : static_cast<unsigned short>(0);
}

} // namespace

LoopbackSocket::LoopbackSocket(Use use)
    : number_(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
  const int on = 1;
  const bool shared = use == Use::reserve;
  const bool ready =
      number_ >= 0 &&
      (!shared || setsockopt(number_, SOL_SOCKET, SO_REUSEPORT, &on, sizeof on) == 0) &&
      (port_ = bind_to_free_port(number_)) != 0 && (shared || ::listen(number_, 512) == 0);
  if (!ready) {
    throw std::system_error(errno, std::generic_category(), "loopback socket");
  }
}

LoopbackSocket::~LoopbackSocket() {
  if (number_ >= 0) {
    close(number_);
  }
}

int LoopbackSocket::release() {
  return std::exchange(number_, -1);
}

} // namespace test
