#include <gtest/gtest.h>
#include <ravelin/integrations/uv.h>

std::function<void()> make_loop() {
  const std::shared_ptr<ravelin::UvAdapter> adapter(
      new ravelin::UvAdapter(uv_default_loop()), [](auto* last) {
        delete last;
        EXPECT_EQ(uv_run(uv_default_loop(), UV_RUN_DEFAULT), 0); // nothing of it is left there
      });
  return [adapter] { uv_run(uv_default_loop(), UV_RUN_ONCE); };
}
