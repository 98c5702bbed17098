#include "tests/harness/patterns.h"
#include "tests/harness/pump.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>
#include <thread>

// An application's event loop with its adapter: what lets it wait for something and see to it.
std::function<void()> make_loop();

namespace test {
using namespace ravelin;
using namespace std::chrono_literals;

// One download, started by and told to the thread that makes it.
struct Download : Run {
  Download() {
    start(server.url(), dir / "a", true, OnConflict::resume,
          [own = std::this_thread::get_id()] { EXPECT_EQ(std::this_thread::get_id(), own); });
  }
  bool succeeded() const { return last.holds<Status::success>() && dir.read("a") == body; }

  const std::string body = pattern(300'000);
  const ScriptedServer server{Reply{.body = body, .piece = 6'000, .piece_delay = 5ms}};
  const TempDir dir;
};

TEST(EventLoop, brings_a_download_to_its_end_or_stops_it_or_is_left_itself) {
  enum How { to_its_end, stopped, left };
  const auto run = [](How how) {
    const auto step = make_loop();
    Download download;
    while (!download.last.holds<Status::downloading>())
      step();
    if (how == stopped)
      download.opr->cancel();
    while (how != left && download.opr->is_busy())
      step();
    return how == stopped ? download.last.holds<Status::cancelled>() : download.succeeded();
  };
  EXPECT_TRUE(run(to_its_end));
  EXPECT_TRUE(run(stopped));
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT((run(left), std::exit(0)), testing::ExitedWithCode(0), "^$");
}

TEST(EventLoop, runs_the_rest_of_the_queue_inside_a_callback) {
  const auto step = make_loop();
  bool inner = false, outer = false;
  MainQueue::async([&] { // as a dialogue does
    while (!inner)
      step();
    outer = true;
  });
  MainQueue::async([&] { inner = true; });
  while (!outer)
    step();
}

TEST(Host, may_have_its_main_thread_elsewhere_and_drop_its_operation) {
  std::thread([] {
    MainQueue::adopt_current_thread();
    Download download;
    const std::weak_ptr operation = std::exchange(download.opr, nullptr);
    while (!operation.expired()) // the library holds it until its end
      MainQueue::drain();
    EXPECT_TRUE(download.succeeded());
  }).join();
  MainQueue::adopt_current_thread(); // for the tests after this one
}

TEST(Host, may_call_from_several_threads) {
  const ScriptedServer server(Reply{.body = "body", .header_delay = 50ms});
  const TempDir dir;
  int ended = 0; // the main thread's
  std::vector<std::jthread> callers;
  for (const std::string name : {"kept", "gone", "kept too", "gone too"})
    callers.emplace_back([&, name] {
      RavelinOperation::set_max_simultaneous_download_count(2);
      const auto operation = std::make_shared<RavelinOperation>();
      operation->resume(URL(server.url()), URL::file(dir / name), true, OnConflict::resume,
                        [&](const Status& status) {
                          // One of the others comes on a thread of the library.
                          if (status.is_final() && ++ended == 4)
                            MainQueue::stop();
                        });
      if (name.starts_with("gone"))
        operation->cancel_and_clear_files();
    });
  MainQueue::run();
  EXPECT_EQ(dir.read("kept") + dir.read("kept too"), "bodybody");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(dir.path()), {}), 2);
}

} // namespace test
