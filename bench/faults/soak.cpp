#include "bench/faults/tally.h"
#include "ravelin/options.h"
#include "tests/harness/faulty_files.h"
#include "tests/harness/patterns.h"
#include "tests/harness/pump.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <array>
#include <cstdio>
#include <malloc.h>
#include <random>
#include <sys/file.h>

// Thousands of downloads in one process, at random: servers at fault, cancellations, conflicts,
// restarts, limits. Every run must end exactly once and nothing may pile up. Before that, twenty at
// once in a directory whose list of hidden files is locked: the main thread must not wait for it.
//   --operations N   how many runs (2000)     --seed N   of everything (1)

namespace test {
namespace {
using namespace ravelin;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool is_sanitized = true;
#else
constexpr bool is_sanitized = false;
#endif
const std::string body = pattern(200'003);
const Reply replies[] = {{.body = body},
                         {.body = body, .accept_ranges = false},
                         {.body = body, .piece = 4000, .piece_delay = 2ms},
                         {.body = body, .cut_after = 20'000},
                         {.body = body, .reset_after = 10'000},
                         {.body = body, .stall_after = 5000},
                         {.body = body, .honour_ranges = false},
                         {.body = body, .chunked = true},
                         {.status = 503, .body = "busy"},
                         {.body = body, .header_delay = 20ms},
                         {.close_at_once = true},
                         {.raw = "nonsense\r\n\r\n"}};
double ms_since(Clock::time_point begin) {
  return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}
std::mt19937 random_numbers;
long draw(std::size_t n) {
  return static_cast<long>(random_numbers() % n);
}
int faults = 0;
void require(bool holds, const char* otherwise) {
  if (!holds)
    std::printf("  fault: %s\n", otherwise);
  faults += !holds;
}

// So many runs, of which a dozen live at a time. Each stage has its own server, which keeps what it
// was asked.
struct Stage {
  const TempDir dir{};
  const ScriptedServer server{[](const Request& request) { // the path names the fault
    return replies[std::stoul(request.target.substr(1)) % std::size(replies)];
  }};
  std::vector<std::unique_ptr<Run>> runs{};
  long living = 0;
  static inline std::vector<double> ms_to_stop{}; // from each cancel to its final event

  void start(const std::shared_ptr<RavelinOperation>& opr) {
    auto& run = *runs.emplace_back(std::make_unique<Run>());
    run.opr = opr;
    ++living;
    if (draw(30) == 0)
      opr->cancel(); // before it begins
    const auto limit = draw(draw(4) ? 1L << 60 : body.size());
    const auto then = [this, &run, limit, asked_to_stop = Clock::time_point()]() mutable {
      if (run.last.holds<Status::cancelling>())
        asked_to_stop = Clock::now();
      if (run.last.holds<Status::cancelled>() && asked_to_stop != Clock::time_point())
        ms_to_stop.push_back(ms_since(asked_to_stop));
      if (run.received > limit && run.last.holds<Status::downloading>())
        run.opr->cancel();
      living -= run.ended();
      if (run.ended() && draw(10) == 0)
        start(run.opr); // again, from inside its own last event
    };
    const auto file = dir / ("file" + std::to_string(draw(6)) + ".bin");
    run.start(server.url("/" + std::to_string(draw(30))), file, draw(4) != 0,
              static_cast<OnConflict>(draw(4)), then);
  }
  void disturb() {
    Options values;
    values.idle_timeout = 300ms;
    values.require_exact_ranges = values.reject_http_errors = draw(2);
    values.reject_changed_content = draw(2);
    if (draw(8) == 0)
      values.rate_limit = 500'000 + draw(5'000'000);
    set_default_options(values);
    RavelinOperation::set_max_simultaneous_download_count(1 + draw(8));
    if (runs.empty())
      return;
    if (draw(60) == 0)
      RavelinOperation::cancel_all(draw(2));
    const auto& other = runs[static_cast<std::size_t>(draw(runs.size()))];
    if (draw(4) == 0 && !other->ended())
      draw(3) ? other->opr->cancel() : other->opr->cancel_and_clear_files();
  }
  long carry_out(std::size_t count) {
    while (runs.size() < count) {
      disturb();
      start(std::make_shared<RavelinOperation>());
      pump_until([&] { return living < 12; });
    }
    pump_until([&] { return living == 0; });
    set_default_options({});
    RavelinOperation::set_max_simultaneous_download_count(1);
    Run last;
    bool waits = false;
    last.start(server.url("/0"), dir / "last", true, OnConflict::stop,
               [&] { waits = waits || last.last.holds<Status::pending>(); });
    pump_until([&] { return last.ended(); });
    require(!waits && dir.read("last") == body, "the registry is not empty");
    for (const auto& run : runs)
      require(run->finals == 1 && run->ended(), "a run has not ended once, with its last event");
    return std::ssize(runs);
  }
};

// Descriptors, threads and KiB allocated.
std::array<long, 3> sample() {
  const auto entries = [](const char* directory) {
    return static_cast<long>(std::distance(std::filesystem::directory_iterator(directory), {}));
  };
  const auto heap = mallinfo2(); // without what the allocator keeps for later
  return {entries("/proc/self/fd"), entries("/proc/self/task"),
          static_cast<long>((heap.uordblks + heap.hblkhd) / 1024)};
}

void soak(long operations) {
  const FaultyFiles slow([](std::string_view call, const std::string&) {
    if (call == "fdatasync")
      std::this_thread::sleep_for(5ms);
    return 0;
  });
  std::array<long, 3> samples[3]; // after the first tenth, half of them, all
  long runs = 0;
  for (int tenth = 1; tenth <= 10; ++tenth) {
    runs += Stage().carry_out(static_cast<std::size_t>(std::max(operations / 10, 1L)));
    if (tenth != 1 && tenth % 5 != 0)
      continue;
    const auto& [descriptors, threads, allocated] = samples[tenth / 5] = sample();
    std::printf("%5ld runs: %3ld descriptors, %3ld threads, %7ld KiB allocated\n", runs,
                descriptors, threads, allocated);
  }
  const auto& stops = Stage::ms_to_stop;
  std::printf("cancelled %zu times: %.1f ms (p50) %.1f ms (p95) %.1f ms (max)\n", stops.size(),
              quantile(stops, 0.5), quantile(stops, 0.95), quantile(stops, 1));
  const auto &middle = samples[1], &end = samples[2];
  require(end[0] <= middle[0] + 4, "descriptors pile up");
  require(end[1] <= middle[1] + 32, "threads pile up");
  require(is_sanitized || end[2] <= middle[2] + 1024, "memory piles up");
  require(is_sanitized || quantile(stops, 0.95) < 100, "cancelling takes long");
}

// Every second one was begun before, so that there are lines to remove as well as to add.
void download_with_locked_list() {
  constexpr std::size_t count = 20;
  const TempDir dir;
  const ScriptedServer server(Reply{.body = body, .piece = 4000, .piece_delay = 15ms});
  const auto download = [&](std::size_t step, bool cancels) {
    std::vector<Run> runs(count / step);
    for (auto& run : runs) {
      const auto name =
          "file" + std::to_string(step * static_cast<std::size_t>(&run - runs.data()));
      run.start(server.url(), dir / name, true, OnConflict::resume, [&run, cancels] {
        if (cancels && run.received > 0 && !run.ended())
          run.opr->cancel();
      });
    }
    pump_until([&] { return std::ranges::all_of(runs, &Run::ended); });
    for (const auto& run : runs)
      require(cancels ? run.last.holds<Status::cancelled>() : run.last.holds<Status::success>(),
              "a download has not ended as it should beside a locked list");
  };
  const auto lines = [&] {
    const auto list = std::filesystem::exists(dir / ".hidden") ? dir.read(".hidden") : "";
    return std::ranges::count(list, '\n');
  };
  set_default_options(Options::careful());
  RavelinOperation::set_max_simultaneous_download_count(count);
  download(2, true);
  const auto listed = lines();

  const int lock = ::open(dir.path().c_str(), O_RDONLY | O_CLOEXEC);
  require(::flock(lock, LOCK_EX | LOCK_NB) == 0, "the list cannot be locked");
  std::vector<double> waits; // for the main thread, by a task that is queued every millisecond
  std::jthread asks([&](const std::stop_token& ends) {
    for (; !ends.stop_requested(); std::this_thread::sleep_for(1ms))
      MainQueue::async([&, asked = Clock::now()] { waits.push_back(ms_since(asked)); });
  });
  const auto begin = Clock::now();
  download(1, false);
  const double took = ms_since(begin);
  asks = {};
  MainQueue::drain();
  const auto left = lines();
  ::close(lock);
  download(1, false);
  std::printf("%zu downloads beside a locked list: %.0f ms; main thread held %.1f ms (p99) %.1f ms "
              "(max); %td lines of %td left, then %td\n",
              count, took, quantile(waits, 0.99), quantile(waits, 1), left, listed, lines());
  require(listed == count / 2 && left == listed && lines() == 0, "the list has other lines");
  for (std::size_t i = 0; i < count; ++i)
    require(dir.read("file" + std::to_string(i)) == body, "a file is wrong beside a locked list");
  // Each download has waited for a tenth of a second on its own thread; on the main thread they
  // would have waited one after the other. A busy machine holds it for as long as one of them.
  require(is_sanitized || quantile(waits, 1) < 500, "the main thread waits for the list");
}

} // namespace
} // namespace test

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  test::random_numbers.seed(static_cast<unsigned>(test::number_option(argc, argv, "--seed", 1)));
  test::download_with_locked_list();
  test::soak(test::number_option(argc, argv, "--operations", 2000));
  return test::faults ? 1 : 0;
}
