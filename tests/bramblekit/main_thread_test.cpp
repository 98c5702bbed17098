#include "bramblekit/errors.h"
#include "bramblekit/main_thread.h"

#include <gtest/gtest.h>
#include <thread>
#include <vector>

namespace ravelin::bramblekit {
namespace {

using ravelin::MainQueue;

/// Runs `body` on other threads while this one runs the main queue.
void off_main(const std::function<void()>& body, int threads = 1) {
  std::thread all([&] {
    {
      std::vector<std::jthread> each;
      for (int i = 0; i < threads; ++i)
        each.emplace_back(body);
    }
    MainQueue::stop();
  });
  MainQueue::run();
  all.join();
}

TEST(MainSync, returns_the_result_of_a_block_that_runs_on_the_main_thread) {
  const auto body = [] {
    EXPECT_TRUE(main_sync([] { return MainQueue::is_main_thread(); }));
    EXPECT_EQ(7, main_sync([] { return main_sync([] { return main_sync([] { return 7; }); }); }));
    EXPECT_EQ("text", *main_sync([] { return std::make_unique<std::string>("text"); }));
    int runs = 0;
    main_sync([&runs] { ++runs; });
    EXPECT_EQ(1, runs);
  };
  body();
  off_main(body);
}

template <class E> void expect_carried(E exception) {
  const void* thrown = nullptr;
  const auto block = [&] {
    try {
      throw exception;
    } catch (const E& e) {
      thrown = &e;
      throw;
    }
  };
  for (const bool waits : {false, true})
    try {
      waits ? wait_signal_main([&](Semaphore&) { block(); }) : main_sync(block);
      ADD_FAILURE() << "nothing was thrown";
    } catch (const E& e) {
      EXPECT_EQ(thrown, &e) << "another object";
    }
}

TEST(MainSync, carries_exceptions_unchanged_and_without_waiting) {
  const auto body = [] {
    expect_carried(42);
    expect_carried(Exception());
    expect_carried(error_msg("a", "b", "c", 1));
    expect_carried(ravelin::URLLoadingError(ravelin::URLError::timed_out, "late"));
  };
  body();
  off_main(body);
}

TEST(MainSync, keeps_many_threads_apart) {
  int count = 0; // plain: the main thread is the only lock
  const auto body = [&count] {
    for (int i = 0; i < 500; ++i) {
      const int mine = main_sync([&count] { return ++count; });
      EXPECT_GE(main_sync([&count] { return count; }), mine);
      MainQueue::async([&count] { ++count; });
    }
  };
  off_main(body, 8);
  MainQueue::drain();
  EXPECT_EQ(8000, count);
}

TEST(WaitSignalMain, returns_the_result_once_the_semaphore_is_signalled) {
  off_main([] {
    bool signalled = false;
    const auto later = [&signalled](Semaphore& semaphore) {
      MainQueue::async([&] {
        signalled = true;
        semaphore.signal();
      });
      return 5;
    };
    EXPECT_EQ(5, wait_signal_main(later));
    EXPECT_TRUE(signalled);
  });
}

TEST(AssertMainThreadDeathTest, ends_the_process_elsewhere_and_names_the_caller) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  assert_main_thread("here");
  EXPECT_DEATH(std::thread([] { assert_main_thread("go(for:)"); }).join(), "go.for:.");
}

} // namespace
} // namespace ravelin::bramblekit
