#pragma once

#include <cerrno>
#include <system_error>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

namespace test {

// A TCP socket on a free loopback port, which programs started by a test do not inherit.
class LoopbackSocket {
public:
  enum class Use { listen, reserve }; // reserve: for a program that listens with SO_REUSEPORT

  explicit LoopbackSocket(Use use) : number_(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof address;
    auto* const general = reinterpret_cast<sockaddr*>(&address);
    const int shared = use == Use::reserve;
    if (setsockopt(number_, SOL_SOCKET, SO_REUSEPORT, &shared, sizeof shared) != 0 ||
        bind(number_, general, size) != 0 || getsockname(number_, general, &size) != 0 ||
        (!shared && ::listen(number_, 512) != 0))
      throw std::system_error(errno, std::generic_category(), "loopback socket");
    port_ = ntohs(address.sin_port);
  }
  ~LoopbackSocket() { close(number_); }
  LoopbackSocket& operator=(LoopbackSocket&&) = delete;

  unsigned short port() const { return port_; }
  int number() const { return number_; }

private:
  const int number_;
  unsigned short port_ = 0;
};

} // namespace test
