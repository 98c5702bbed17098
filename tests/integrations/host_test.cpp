#include "tests/integrations/download.h"

namespace test {

void stop_at_end(const Status& status) {
  if (Download::is_final(status))
    MainQueue::stop();
}

TEST(Host, may_have_its_main_thread_elsewhere) {
  std::thread([] {
    MainQueue::adopt_current_thread();
    const Download download(std::nullopt, stop_at_end);
    MainQueue::run();
    EXPECT_TRUE(download.succeeded());
  }).join();
  MainQueue::adopt_current_thread(); // for the tests after this one
}

TEST(Host, may_call_from_several_threads) {
  constexpr int threads = 4;
  const auto body = pattern(500'000);
  const ScriptedServer server({.body = body});
  const TempDir dir;
  int ended = 0; // the main thread's
  int succeeded = 0;
  const auto count = [&](const Status& status) {
    if (status.holds<Status::files_are_created>())
      return;
    succeeded += status.holds<Status::success>();
    ended += Download::is_final(status);
    if (ended == 2 * threads)
      MainQueue::stop();
  };
  std::vector<std::thread> callers;
  for (int i = 0; i < threads; ++i)
    callers.emplace_back([&, name = std::to_string(i)] {
      RavelinOperation::set_max_simultaneous_download_count(2);
      const auto start = [&](const std::string& file) {
        auto operation = std::make_shared<RavelinOperation>();
        operation->resume(URL(server.url()), URL::file(dir / file), true, OnConflict::resume,
                          count);
        return operation;
      };
      start("cancelled" + name)->cancel_and_clear_files();
      const auto kept = start(name);
      EXPECT_TRUE(kept->is_busy() || kept->state().holds<State::successful>());
    });
  MainQueue::run();
  for (auto& caller : callers)
    caller.join();
  EXPECT_EQ(succeeded, threads);
  for (int i = 0; i < threads; ++i)
    EXPECT_TRUE(dir.read(std::to_string(i)) == body);
}

// A window that is closed while its download goes on.
TEST(Host, may_drop_its_operation_while_it_runs) {
  Download download(std::nullopt, [&](const Status& status) {
    download.operation.reset();
    stop_at_end(status);
  });
  const std::weak_ptr operation = download.operation;
  MainQueue::run();
  EXPECT_TRUE(download.succeeded());
  while (!operation.expired()) // the library lets go of it a moment after the final event
    std::this_thread::yield();
}

} // namespace test
