#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <ostream>

namespace test {

// An application's event loop with its adapter, as the tests drive it.
struct HostLoop {
  virtual ~HostLoop() = default;
  virtual void run() = 0; // until `leave()`; from inside a callback, too, where the loop nests
  virtual void leave() = 0;
  virtual void start_timer() = 0; // calls `on_timer` once, after a few milliseconds
  std::function<void()> on_timer;
};

struct LoopKind {
  const char* name;
  std::unique_ptr<HostLoop> (*make)();
  bool nests = true;
  friend void PrintTo(const LoopKind& kind, std::ostream* out) { *out << kind.name; }
};

template <class Loop> std::unique_ptr<HostLoop> make() {
  return std::make_unique<Loop>();
}

class EventLoop : public testing::TestWithParam<LoopKind> {};

} // namespace test
