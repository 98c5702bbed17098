#pragma once

namespace test {

// A TCP socket on a free loopback port of the system's choice. It does not block, and programs
// started by a test do not inherit it: they would keep it open without ever serving it.
class LoopbackSocket {
public:
  enum class Use {
    listen,
    reserve, // only keeps the port from others, until a program listens there with SO_REUSEPORT
  };

  explicit LoopbackSocket(Use use);
  ~LoopbackSocket();
  LoopbackSocket(const LoopbackSocket&) = delete;
  LoopbackSocket& operator=(const LoopbackSocket&) = delete;

  unsigned short port() const { return port_; }
  // The number of the descriptor, which the caller closes from now on.
  int release();

private:
  int number_;
  unsigned short port_ = 0;
};

} // namespace test
