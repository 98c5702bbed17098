#include "tests/integrations/download.h"
#include "tests/integrations/host_loop.h"

#include <utility>

namespace test {

TEST_P(EventLoop, brings_a_download_to_its_end_on_its_own_thread) {
  const auto loop = GetParam().make();
  const Download download(std::nullopt, [&](const Status& status) {
    if (Download::is_final(status))
      loop->leave();
  });
  loop->run();
  EXPECT_TRUE(download.succeeded());
}

TEST_P(EventLoop, cancels_from_its_own_timer) {
  const auto loop = GetParam().make();
  bool started = false;
  const Download download(100'000, [&](const Status& status) {
    if (status.holds<Status::downloading>() && !std::exchange(started, true))
      loop->start_timer();
    if (Download::is_final(status))
      loop->leave();
  });
  loop->on_timer = [&] { download.operation->cancel(); };
  loop->run();
  ASSERT_TRUE(download.last->holds<Status::cancelled>());
  EXPECT_GT(download.last->get_if<Status::cancelled>()->progress.received_bytes, 0);
}

TEST_P(EventLoop, can_be_left_in_mid_download) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto application = [] {
    const auto loop = GetParam().make();
    const Download download(100'000, [&](const Status& status) {
      if (status.holds<Status::downloading>())
        loop->leave();
    });
    loop->run();
  };
  EXPECT_EXIT((application(), std::exit(0)), testing::ExitedWithCode(0), "^$");
}

TEST_P(EventLoop, runs_the_rest_of_the_queue_inside_a_callback) {
  if (!GetParam().nests)
    GTEST_SKIP() << "this loop does not run inside itself";
  const auto loop = GetParam().make();
  MainQueue::async([&] { loop->run(); }); // as a dialogue does
  MainQueue::async([&] { loop->leave(); });
  MainQueue::async([&] { MainQueue::async([&] { loop->leave(); }); });
  loop->run();
}

GTEST_ALLOW_UNINSTANTIATED_PARAMETERIZED_TEST(EventLoop);

} // namespace test
