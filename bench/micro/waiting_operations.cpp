#include "bench/faults/tally.h"
#include "bench/micro/timed_drain.h"
#include "tests/harness/pump.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <cstdio>
#include <deque>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include <malloc.h>

// Measures the cost of claiming and releasing a destination while many operations wait for their
// turn, and the memory of a waiting operation.
//   --waiting N   number of waiting operations (10000)     --times N   samples per figure (200)

namespace test {
namespace {

using namespace ravelin;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

/// A number from `/proc/self/status`: KiB or a count.
long status_number(const std::string& name) {
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with(name + ":"))
      return std::stol(line.substr(name.size() + 1));
  return 0;
}

long allocated() { // bytes
  const auto heap = mallinfo2();
  return static_cast<long>(heap.uordblks + heap.hblkhd);
}

struct Operation {
  std::shared_ptr<RavelinOperation> opr = std::make_shared<RavelinOperation>();
  bool pending = false, connecting = false, ended = false;
};
using Shared = std::shared_ptr<Operation>;

class Registry {
public:
  Registry() { RavelinOperation::set_max_simultaneous_download_count(1); }

  /// Claims a new destination and returns the time of the call in microseconds.
  double start(const Shared& operation) {
    const URL link(server_.url());
    const auto file = URL::file(dir_ / ("file" + std::to_string(count_++ * 7919) + ".bin"));
    const auto closure = [operation](const Status& status) {
      operation->pending = operation->pending || status.holds<Status::pending>();
      operation->connecting = operation->connecting || status.holds<Status::connecting>();
      operation->ended = operation->ended || status.is_final();
    };
    const auto begin = Clock::now();
    operation->opr->resume(link, file, true, OnConflict::stop, closure);
    return us_since(begin);
  }

  Shared make_running() {
    auto operation = std::make_shared<Operation>();
    start(operation);
    pump_until([&] { return operation->connecting; });
    return operation;
  }

  Shared make_waiting() {
    auto operation = std::make_shared<Operation>();
    claims_.push_back(start(operation));
    pump_until([&] { return operation->pending; });
    return operation;
  }

  /// Cancels it and returns the time in microseconds of the main-thread work that released its
  /// destination and reported the final event.
  static double release(const Shared& operation) {
    operation->opr->cancel();
    for (;;)
      if (const auto hold = timed_drain(); operation->ended)
        return hold.wall_us;
  }

  std::vector<double> take_claims() { return std::exchange(claims_, {}); }

private:
  const ScriptedServer server_{Reply{.header_delay = 24h}};
  const TempDir dir_;
  long count_ = 0;
  std::vector<double> claims_;
};

void print(const char* what, long waiting, const std::vector<double>& all) {
  std::printf("%s_p50_us_of_%ld %.1f\n%s_p99_us_of_%ld %.1f\n%s_max_us_of_%ld %.1f\n", what,
              waiting, quantile(all, 0.5), what, waiting, quantile(all, 0.99), what, waiting,
              quantile(all, 1));
}

void measure(Registry& registry, std::deque<Shared>& queue, long times) {
  const auto waiting = static_cast<long>(queue.size()) - 1;
  registry.take_claims();
  std::vector<double> waiting_ones, running_ones;
  for (long i = 0; i < times; ++i)
    waiting_ones.push_back(Registry::release(registry.make_waiting()));
  print("claim", waiting, registry.take_claims());
  print("release_waiting", waiting, waiting_ones);
  for (long i = 0; i < times; ++i) {
    queue.push_back(registry.make_waiting());
    running_ones.push_back(Registry::release(queue.front()));
    queue.pop_front();
    pump_until([&] { return queue.front()->connecting; });
  }
  print("release_running", waiting, running_ones);
}

void fill(Registry& registry, std::deque<Shared>& queue, long waiting) {
  const auto memory = status_number("VmRSS"), threads = status_number("Threads");
  const auto heap = allocated();
  const auto missing = waiting + 1 - static_cast<long>(queue.size());
  for (long i = 0; i < missing; ++i)
    queue.push_back(registry.make_waiting());
  const auto each = static_cast<double>(missing);
  std::printf("memory_per_waiting_kib %.2f\nheap_per_waiting_kib %.2f\n"
              "threads_per_waiting %.3f\n",
              static_cast<double>(status_number("VmRSS") - memory) / each,
              static_cast<double>(allocated() - heap) / 1024 / each,
              static_cast<double>(status_number("Threads") - threads) / each);
}

void cancel_all(const std::deque<Shared>& queue) {
  const auto begin = Clock::now();
  RavelinOperation::cancel_all(true);
  const auto call = us_since(begin);
  for (const auto& operation : queue)
    pump_until([&] { return operation->ended; });
  std::printf("cancel_all_call_ms %.1f\ncancel_all_until_ended_ms %.1f\n", call / 1e3,
              us_since(begin) / 1e3);
}

int run(long waiting, long times) {
  Registry registry;
  std::deque<Shared> queue{registry.make_running()};
  queue.push_back(registry.make_waiting());
  measure(registry, queue, times);
  fill(registry, queue, waiting);
  measure(registry, queue, times);
  cancel_all(queue);
  return 0;
}

} // namespace
} // namespace test

int main(int argc, char** argv) {
  return test::run(test::number_option(argc, argv, "--waiting", 10'000),
                   test::number_option(argc, argv, "--times", 200));
}
