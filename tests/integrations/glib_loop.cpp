#include "ravelin/integrations/glib.h"
#include "tests/integrations/host_loop.h"

#include <utility>

namespace test {

struct GlibLoop final : HostLoop {
  void run() override {
    auto* const outer = std::exchange(loop, g_main_loop_new(nullptr, FALSE));
    g_main_loop_run(loop);
    g_main_loop_unref(std::exchange(loop, outer));
  }
  void leave() override { g_main_loop_quit(loop); }
  void start_timer() override {
    const auto fire = [](gpointer self) { static_cast<GlibLoop*>(self)->on_timer(); };
    g_timeout_add_once(5, fire, this);
  }

  GMainLoop* loop = nullptr;
  ravelin::GlibAdapter adapter;
};

INSTANTIATE_TEST_SUITE_P(Glib, EventLoop, testing::Values(LoopKind{"glib", make<GlibLoop>}));

} // namespace test
