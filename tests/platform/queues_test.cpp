#include "platform/threads/semaphore.h"
#include "platform/threads/serial_queue.h"
#include "ravelin/main_queue.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <latch>
#include <poll.h>
#include <thread>
#include <vector>

namespace ravelin::platform {
namespace {

using namespace std::chrono_literals;

bool readable() {
  pollfd watched{MainQueue::descriptor(), POLLIN, 0};
  return poll(&watched, 1, 0) == 1;
}

TEST(MainQueue, is_readable_exactly_while_work_is_queued) {
  constexpr std::size_t thrown = 99;
  const auto nothing = [] {};
  const auto queues_more = [&] {
    MainQueue::async(nothing);
    EXPECT_TRUE(readable()) << "a loop inside a callback would sleep";
  };
  const auto drains = [] { EXPECT_EQ(1u, MainQueue::drain()); };
  const auto throws = [] { throw 7; };
  const std::tuple<const char*, std::vector<std::function<void()>>, std::vector<std::size_t>>
      cases[] = {{"nothing", {}, {0}},
                 {"three pieces", {nothing, nothing, nothing}, {3, 0}},
                 {"work that queues work", {queues_more, queues_more}, {2, 2, 0}},
                 {"work that drains the rest", {drains, nothing}, {1, 0}},
                 {"work that throws", {throws}, {thrown, 0}},
                 {"work behind work that throws", {throws, nothing}, {thrown, 1, 0}}};
  for (const auto& [name, work, drained] : cases) {
    SCOPED_TRACE(name);
    std::ranges::for_each(work, MainQueue::async);
    for (const auto count : drained) {
      EXPECT_EQ(count > 0, readable());
      try {
        EXPECT_EQ(count, MainQueue::drain());
      } catch (int) {
        EXPECT_EQ(thrown, count);
      }
    }
    EXPECT_FALSE(readable());
  }
}

TEST(MainQueue, is_readable_for_work_from_before_anybody_asked) {
  MainQueue::async([] {});
  EXPECT_TRUE(readable());
  EXPECT_EQ(1U, MainQueue::drain());
  EXPECT_FALSE(readable());
}

TEST(MainQueue, is_not_readable_for_a_stop_that_no_run_waits_for) {
  MainQueue::stop();
  MainQueue::drain();
  EXPECT_FALSE(readable()) << "a loop that watches the descriptor would spin";
  MainQueue::run(); // returns at once
}

TEST(MainQueue, runs_the_work_of_a_thread_in_its_order_until_stopped) {
  std::vector<int> order;
  std::thread other([&] {
    EXPECT_FALSE(MainQueue::is_main_thread());
    for (int i = 0; i < 100; ++i)
      MainQueue::async([&order, i] { order.push_back(MainQueue::is_main_thread() ? i : -1); });
    MainQueue::async(MainQueue::stop);
  });
  MainQueue::run();
  other.join();
  EXPECT_TRUE(order.size() == 100 && order[0] == 0 && std::ranges::is_sorted(order));
}

TEST(SerialQueue, lets_a_thread_that_offers_itself_do_what_was_added) {
  SerialQueue queue("test");
  std::vector<std::thread::id> workers;
  const auto note = [&] { workers.push_back(std::this_thread::get_id()); };
  queue.add(note);
  queue.add([&] {
    note();
    queue.add(note); // done by the same thread, before it returns
    queue.work_off();
    EXPECT_EQ(2u, workers.size()) << "one job at a time";
  });
  queue.work_off();
  EXPECT_EQ(std::vector(3, std::this_thread::get_id()), workers);
}

TEST(SerialQueue, needs_no_other_thread_than_the_one_lent_to_it) {
  SerialQueue queue("test");
  Semaphore awaited(0);
  std::vector<std::thread::id> workers;
  const auto note = [&] { workers.push_back(std::this_thread::get_id()); };
  {
    LentThread lent(queue, awaited);
    queue.async([&] { queue.async(note); });
    std::thread other([&] {
      for (int i = 0; i < 100; ++i)
        queue.async(note);
      queue.async([&] { awaited.signal(); });
    });
    lent.wait();
    other.join();
  }
  EXPECT_EQ(std::vector(101, std::this_thread::get_id()), workers);
  {
    const LentThread never_waits(queue, awaited);
    queue.async(note);
    EXPECT_EQ(101U, workers.size());
  }
  EXPECT_EQ(102U, workers.size()) << "a job was promised the thread that has left";
}

TEST(SerialQueue, lets_a_lent_thread_go_whoever_signals_what_it_waits_for) {
  SerialQueue queue("test");
  for (int i = 0; i < 300; ++i) {
    Semaphore awaited(0);
    DispatchGroup jobs;
    std::atomic<int> ran = 0;
    jobs.enter();
    LentThread lent(queue, awaited);
    std::thread worker([&] {
      queue.async([&] {
        ++ran;
        jobs.leave();
      });
    });
    std::thread other([&] { awaited.signal(); });
    lent.wait();
    worker.join();
    other.join();
    jobs.wait(); // done by this thread, or another where this one had left
    EXPECT_EQ(1, ran);
  }
}

TEST(SerialQueue, runs_one_job_at_a_time_in_the_order_of_each_thread) {
  DispatchGroup group;
  std::atomic<int> at_work = 0;
  std::vector<std::vector<int>> order(4); // plain data: queue and group alone order its uses
  {
    SerialQueue queue("test"); // its jobs outlive it
    std::vector<std::jthread> threads;
    for (auto& mine : order)
      threads.emplace_back([&] {
        for (int i = 0; i < 200; ++i) {
          group.enter();
          queue.async([&, i] {
            EXPECT_EQ(1, ++at_work);
            mine.push_back(i);
            --at_work;
            group.leave();
          });
        }
      });
  }
  group.wait();
  for (const auto& mine : order)
    EXPECT_TRUE(mine.size() == 200 && std::ranges::is_sorted(mine));
}

TEST(ThreadPool, grows_while_all_its_threads_block_and_shrinks_when_idle) {
  constexpr int jobs = 30;
  std::latch started(jobs), go_on(1);
  for (int i = 0; i < jobs; ++i)
    run_in_background([&] {
      started.count_down();
      go_on.wait();
    });
  started.wait(); // for ever, if a job had to wait for another
  EXPECT_GE(background_thread_count(), static_cast<std::size_t>(jobs));
  go_on.count_down();
  const auto limit = std::chrono::steady_clock::now() + 7500ms;
  while (background_thread_count() > 0 && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(20ms); // nothing tells of a thread's end
  EXPECT_EQ(0u, background_thread_count());
}

} // namespace
} // namespace ravelin::platform
