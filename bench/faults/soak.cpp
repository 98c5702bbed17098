#include "bench/faults/pump.h"
#include "bench/faults/tally.h"
#include "ravelin/defaults.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <memory>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <malloc.h>
#include <unistd.h>

// Thousands of downloads in one process, at random: servers at fault, cancellations, conflicts,
// restarts, limits. Every run must end exactly once and nothing may pile up.
//   --operations N   how many runs (2000)     --seed N   of everything (1)

namespace test {
namespace {

using namespace ravelin;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

const std::string body = pattern(200'003);

// The path names the fault.
const std::array<Reply, 12> replies{{
    {.body = body},
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
    {.raw = "nonsense\r\n\r\n"},
}};
const Reply& reply_to(const Request& request) {
  return replies.at(std::stoul(request.target.substr(1)) % replies.size());
}

struct Run {
  std::shared_ptr<RavelinOperation> opr;
  int finals = 0;
  int after = 0;           // events that came after the final one
  std::int64_t limit = -1; // bytes after which it is cancelled
};

struct Sample {
  long resident = 0;         // KiB
  std::size_t allocated = 0; // KiB, without what the allocator keeps for later
  std::ptrdiff_t descriptors = 0;
};
Sample sample() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  const auto heap = mallinfo2();
  return {resident * (sysconf(_SC_PAGESIZE) / 1024), (heap.uordblks + heap.hblkhd) / 1024,
          std::distance(fs::directory_iterator("/proc/self/fd"), {})};
}

class Soak {
public:
  Soak(long operations, unsigned seed) : left_(operations), random_(seed) {}

  int run() {
    const auto each = std::max(left_ / 10, 1L);
    std::array<Sample, 3> samples;
    for (long done = 0; left_ > 0; ++done) {
      stage(std::min(each, left_));
      for (std::size_t at : {0, 1, 2}) // after the first tenth, half of them, all
        if (done == std::array<long, 3>{0, 4, 9}[at])
          samples[at] = sample();
    }
    samples[2] = sample();
    check_that_nothing_is_claimed();
    std::printf("%ld runs:", runs_);
    for (const auto& [name, count] : ends_)
      std::printf(" %d %s", count, name.c_str());
    std::printf("; %d faults\n", faults_);
    const char* const when[] = {"start", "middle", "end"};
    for (std::size_t at = 0; at < samples.size(); ++at)
      std::printf("%-7s %7ld KiB resident, %7zu KiB allocated, %3td descriptors\n", when[at],
                  samples[at].resident, samples[at].allocated, samples[at].descriptors);
    require(samples[2].descriptors <= samples[1].descriptors + 4, "descriptors pile up");
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    require(samples[2].allocated <= samples[1].allocated + 1024, "memory piles up");
    require(samples[2].resident <= samples[0].resident + 8 * 1024, "memory grows");
#endif
    return faults_;
  }

private:
  long draw(long n) {
    return static_cast<long>(random_() % static_cast<unsigned long>(n));
  }
  void require(bool holds, const char* otherwise) {
    if (holds)
      return;
    ++faults_;
    std::printf("  fault: %s\n", otherwise);
  }

  // So many runs, of which a dozen live at a time; returns when all have ended.
  void stage(long count) {
    const TempDir dir;
    server_.emplace(Script(reply_to)); // it keeps all requests, so each stage has its own
    const auto goal = runs_ + count;
    left_ -= count;
    while (runs_ < goal) {
      shake();
      start(std::make_shared<RavelinOperation>(), dir);
      pump_until([&] { return running_ < 12; });
    }
    pump_until([&] { return running_ == 0; });
    MainQueue::drain();
    for (const auto& run : all_) {
      require(run->finals == 1, "a run has not ended exactly once");
      require(run->after == 0, "an event came after the final one");
    }
    all_.clear();
  }

  void shake() {
    Defaults values;
    values.idle_timeout = 300ms;
    values.require_exact_ranges = values.reject_http_errors = draw(2);
    values.reject_changed_content = draw(2);
    if (draw(8) == 0)
      values.rate_limit = 500'000 + draw(5'000'000);
    set_defaults(values);
    RavelinOperation::set_max_simultaneous_download_count(1 + draw(8));
    if (draw(60) == 0)
      RavelinOperation::cancel_all(draw(2));
    if (all_.empty())
      return;
    const auto& other = all_[static_cast<std::size_t>(draw(static_cast<long>(all_.size())))];
    if (draw(4) == 0 && other->finals == 0)
      draw(3) ? other->opr->cancel() : other->opr->cancel_and_clear_files();
  }

  void start(const std::shared_ptr<RavelinOperation>& opr, const TempDir& dir) {
    const auto run = std::make_shared<Run>(Run{.opr = opr});
    all_.push_back(run);
    ++runs_;
    ++running_;
    if (draw(4) == 0)
      run->limit = draw(static_cast<long>(body.size()));
    if (draw(30) == 0)
      opr->cancel();                                              // before it begins
    const URL link(server_->url("/" + std::to_string(draw(30)))); // some faults are more frequent
    const auto file = URL::file(dir / ("file" + std::to_string(draw(6)) + ".bin"));
    const auto policy = static_cast<OnConflict>(draw(4));
    opr->resume(link, file, draw(4) != 0, policy,
                [this, run, &dir](const Status& told) { take(*run, dir, told); });
  }

  void take(Run& run, const TempDir& dir, const Status& told) {
    if (told.holds<Status::files_are_created>())
      return; // on another thread
    run.after += run.finals > 0;
    if (const auto* const some = told.get_if<Status::downloading>();
        some && run.limit >= 0 && some->progress.received_bytes > run.limit) {
      run.limit = -1;
      run.opr->cancel();
    }
    if (!is_final(told))
      return;
    ++run.finals;
    --running_;
    ++ends_[told.holds<Status::success>() ? "successes"
            : told.holds<Status::error>() ? "errors"
                                          : "cancelled"];
    if (draw(10) == 0)
      start(run.opr, dir); // again, from inside its own last event
  }

  // A run that finds a slot, and each name, at once: nothing holds them.
  void check_that_nothing_is_claimed() {
    set_defaults({});
    RavelinOperation::set_max_simultaneous_download_count(1);
    const TempDir dir;
    server_.emplace(Script(reply_to));
    bool pended = false, ended = false, succeeded = false;
    const auto opr = std::make_shared<RavelinOperation>();
    opr->resume(URL(server_->url("/0")), URL::file(dir / "probe"), true, OnConflict::stop,
                [&](const Status& told) {
                  if (told.holds<Status::files_are_created>())
                    return; // told on another thread
                  pended = pended || told.holds<Status::pending>();
                  succeeded = told.holds<Status::success>();
                  ended = ended || is_final(told);
                });
    pump_until([&] { return ended; });
    require(!pended && succeeded, "the registry is not empty");
    require(dir.read("probe") == body, "another file");
  }

  std::optional<ScriptedServer> server_;
  long left_;
  std::mt19937 random_;
  long runs_ = 0;
  int running_ = 0, faults_ = 0;
  std::vector<std::shared_ptr<Run>> all_;
  std::map<std::string, int> ends_;
};

} // namespace
} // namespace test

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const auto seed = static_cast<unsigned>(test::number_option(argc, argv, "--seed", 1));
  return test::Soak(test::number_option(argc, argv, "--operations", 2000), seed).run() ? 1 : 0;
}
