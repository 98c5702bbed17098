#include "ravelin/integrations/uv.h"
#include "tests/integrations/host_loop.h"

#include <optional>

namespace test {

struct UvLoop final : HostLoop {
  UvLoop() {
    uv_loop_init(&loop);
    uv_timer_init(&loop, &timer);
    timer.data = this;
    adapter.emplace(&loop);
  }
  ~UvLoop() override {
    adapter.reset();
    uv_close(reinterpret_cast<uv_handle_t*>(&timer), nullptr);
    uv_run(&loop, UV_RUN_DEFAULT);
    EXPECT_EQ(uv_loop_close(&loop), 0); // nothing of the adapter is left in it
  }
  void run() override { uv_run(&loop, UV_RUN_DEFAULT); }
  void leave() override { uv_stop(&loop); }
  void start_timer() override {
    const auto fire = [](uv_timer_t* fired) { static_cast<UvLoop*>(fired->data)->on_timer(); };
    uv_timer_start(&timer, fire, 5, 0);
  }

  uv_loop_t loop;
  uv_timer_t timer;
  std::optional<ravelin::UvAdapter> adapter;
};

INSTANTIATE_TEST_SUITE_P(Uv, EventLoop, testing::Values(LoopKind{"uv", make<UvLoop>, false}));

} // namespace test
