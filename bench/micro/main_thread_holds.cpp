#include "bench/faults/tally.h"
#include "bench/micro/timed_drain.h"
#include "tests/harness/nginx.h"
#include "tests/harness/pump.h"
#include "tests/harness/temp_dir.h"

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

// Measures how long a download at full speed blocks the application's main thread: the time of each
// `MainQueue::drain()` call that had work, with a trivial status callback.
//   --mib N   size of the file in TMPDIR (2048)

namespace test {
namespace {

using namespace ravelin;

class Download {
public:
  Download(const std::string& link, const std::filesystem::path& file) {
    opr_->resume(URL(link), URL::file(file), true, OnConflict::stop, [this](const Status& status) {
      if (status.holds<Status::files_are_created>())
        return; // called on another thread
      ended_ = status.is_final();
      succeeded_ = status.holds<Status::success>();
    });
  }
  std::vector<Hold> holds_until_end() {
    std::vector<Hold> holds;
    while (!ended_)
      if (const auto hold = timed_drain(); hold.jobs > 0)
        holds.push_back(hold);
    return holds;
  }
  bool succeeded() const { return succeeded_; }

private:
  std::shared_ptr<RavelinOperation> opr_ = std::make_shared<RavelinOperation>();
  bool ended_ = false, succeeded_ = false;
};

void print(const char* what, const std::vector<Hold>& holds, double Hold::*field) {
  std::vector<double> all;
  for (const auto& hold : holds)
    all.push_back(hold.*field);
  std::printf("%s_p50_us %.1f\n%s_p99_us %.1f\n%s_max_us %.1f\n", what, quantile(all, 0.5), what,
              quantile(all, 0.99), what, quantile(all, 1));
}

/// Brings the file into the page cache, so that the server does not use CPU time to do so.
void read_once(const std::filesystem::path& file) {
  std::ifstream in(file, std::ios::binary);
  for (std::vector<char> piece(1 << 20); in.read(piece.data(), 1 << 20);)
    continue;
}

int run(long mib) {
  Nginx server;
  const auto served = server.root() / "file.bin";
  std::ofstream(served).close();
  std::filesystem::resize_file(served, static_cast<std::uintmax_t>(mib) << 20);
  read_once(served);
  const TempDir dir;
  const auto start = std::chrono::steady_clock::now();
  Download download(server.url(), dir / "file.bin");
  const auto holds = download.holds_until_end();
  const auto seconds = us_since(start) / 1e6;
  if (!download.succeeded()) {
    std::fprintf(stderr, "the download failed\n");
    return 1;
  }
  std::size_t jobs = 0;
  double busy = 0;
  for (const auto& hold : holds) {
    jobs += hold.jobs;
    busy += hold.cpu_us;
  }
  std::printf("seconds %.3f\ndrains %zu\njobs %zu\nbusy_share %.4f\n", seconds, holds.size(), jobs,
              busy / 1e6 / seconds);
  print("wall", holds, &Hold::wall_us);
  print("cpu", holds, &Hold::cpu_us);
  return 0;
}

} // namespace
} // namespace test

int main(int argc, char** argv) {
  return test::run(test::number_option(argc, argv, "--mib", 2048));
}
