#include "ravelin/integrations/asio.h"
#include "tests/integrations/host_loop.h"

#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>
#include <utility>

namespace test {

struct AsioLoop final : HostLoop {
  void run() override {
    bool done = false;
    auto* const outer = std::exchange(left, &done);
    while (!done)
      context.run_one();
    left = outer;
  }
  void leave() override { *left = true; }
  void start_timer() override {
    timer.expires_after(std::chrono::milliseconds(5));
    timer.async_wait([this](std::error_code) { on_timer(); });
  }

  asio::io_context context;
  asio::steady_timer timer{context};
  bool* left = nullptr;
  ravelin::AsioAdapter<asio::posix::stream_descriptor> adapter{context};
};

INSTANTIATE_TEST_SUITE_P(Asio, EventLoop, testing::Values(LoopKind{"asio", make<AsioLoop>}));

} // namespace test
