#include "bench/faults/pump.h"
#include "bench/faults/tally.h"
#include "platform/files/file_calls.h"
#include "ravelin/defaults.h"
#include "tests/harness/loopback_socket.h"
#include "tests/harness/nginx.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <arpa/inet.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

// How long it takes from `cancel()` to the final event, and when the idle time-out fires.
//   --times N   of each case (100)

namespace test {
namespace {

using namespace ravelin;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

double ms_since(Clock::time_point start) {
  return std::chrono::duration<double, std::milli>(Clock::now() - start).count();
}

// The system's calls, and when the last flush under way at a given moment was over. Writes go
// through one queue, so there is one flush at a time.
class TimedFlushes : public platform::FileCalls {
public:
  int fdatasync(int descriptor) override {
    const auto start = Clock::now();
    const int result = FileCalls::fdatasync(descriptor);
    const std::lock_guard lock(mutex_);
    flushes_.push_back({start, Clock::now()});
    return result;
  }
  double ms_left_at(Clock::time_point moment) {
    const std::lock_guard lock(mutex_);
    double left = 0;
    for (const auto& [start, end] : std::exchange(flushes_, {}))
      if (start <= moment && moment < end)
        left = std::max(left, std::chrono::duration<double, std::milli>(end - moment).count());
    return left;
  }

private:
  std::mutex mutex_;
  std::vector<std::pair<Clock::time_point, Clock::time_point>> flushes_;
};
TimedFlushes flushes;

struct Run {
  Run(const std::string& link, const std::filesystem::path& file) {
    opr->resume(URL(link), URL::file(file), true, OnConflict::replace, [this](const Status& told) {
      if (told.holds<Status::files_are_created>())
        return; // comes on another thread
      connecting = connecting || told.holds<Status::connecting>();
      if (const auto* const some = told.get_if<Status::downloading>())
        received = some->progress.received_bytes;
      ended = ended || is_final(told);
      timed_out = told.holds<Status::error>() &&
                  told.get_if<Status::error>()->custom_error.holds<CustomError::timeout>();
      succeeded = told.holds<Status::success>();
    });
  }
  std::shared_ptr<RavelinOperation> opr = std::make_shared<RavelinOperation>();
  std::int64_t received = 0;
  bool connecting = false, ended = false, timed_out = false, succeeded = false;
};

// One cancellation of a download that is ready for it when `ready` says so; in milliseconds, apart
// from the flush that was under way.
using Ready = std::function<bool(const Run&)>;
double cancel_once(const std::string& link, const Ready& ready) {
  const TempDir dir;
  Run run(link, dir / "file.bin");
  pump_until([&] { return run.ended || ready(run); });
  const auto start = Clock::now();
  run.opr->cancel();
  pump_until([&] { return run.ended; });
  const auto took = ms_since(start) - flushes.ms_left_at(start);
  if (run.succeeded || run.timed_out)
    std::printf("  ended before it was cancelled\n");
  return took;
}

int faults = 0;

void measure(const char* name, long times, const std::string& link, const Ready& ready) {
  std::vector<double> all;
  while (static_cast<long>(all.size()) < times)
    all.push_back(cancel_once(link, ready));
  std::printf("cancel, %-22s %4ld times: %6.1f ms (p50) %6.1f ms (p95) %6.1f ms (max)\n", name,
              times, quantile(all, 0.5), quantile(all, 0.95), quantile(all, 1));
  const auto late = std::ranges::count_if(all, [](double ms) { return ms >= 100; });
  faults += late > (times + 19) / 20;
}

void silent_server(long times) {
  const ScriptedServer server(Reply{.header_delay = 24h});
  std::size_t seen = 0;
  measure("silent server", times, server.url(), [&](const Run&) {
    const bool arrived = server.requests().size() > seen;
    seen += arrived;
    return arrived;
  });
}

// Accepted by the system, and never answered.
void silent_tls(long times) {
  const int number = LoopbackSocket(LoopbackSocket::Use::listen).release();
  sockaddr_in address{};
  socklen_t size = sizeof address;
  getsockname(number, reinterpret_cast<sockaddr*>(&address), &size);
  std::vector<int> accepted;
  int greeted = -1; // the connection whose greeting is awaited
  const auto port = std::to_string(ntohs(address.sin_port));
  measure("silent TLS", times, "https://127.0.0.1:" + port + "/file.bin", [&](const Run&) {
    if (greeted < 0) {
      greeted = accept4(number, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (greeted >= 0)
        accepted.push_back(greeted);
    }
    char first;
    const bool came = greeted >= 0 && recv(greeted, &first, 1, 0) == 1;
    if (came)
      greeted = -1;
    return came;
  });
  for (const int connection : accepted)
    close(connection);
  close(number);
}

void busy_disk(long times) {
  Nginx server;
  const auto file = server.root() / "file.bin";
  std::ofstream(file).close();
  std::filesystem::resize_file(file, 2LL << 30);
  std::mt19937 random(1);
  std::int64_t enough = 0;
  measure("full speed onto disk", times, server.url(), [&](const Run& run) {
    if (run.received == 0)
      enough = 1 + static_cast<std::int64_t>(random() % (64 << 20));
    return run.received >= enough && run.received > 0;
  });
}

// In a child with a network and mounts of its own, where the only name server never answers.
void hanging_look_up(long times) {
  std::fflush(stdout);
  const TempDir dir;
  const auto resolvers = dir.write("resolv.conf", "nameserver 127.0.0.1\n");
  const auto names = dir.write("nsswitch.conf", "hosts: dns\n");
  const bool apart = unshare(CLONE_NEWNS | CLONE_NEWNET) == 0 &&
                     mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
                     mount(resolvers.c_str(), "/etc/resolv.conf", nullptr, MS_BIND, nullptr) == 0 &&
                     mount(names.c_str(), "/etc/nsswitch.conf", nullptr, MS_BIND, nullptr) == 0;
  const int listener = apart ? socket(AF_INET, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0) : -1;
  ifreq loopback{};
  loopback.ifr_name[0] = 'l';
  loopback.ifr_name[1] = 'o';
  loopback.ifr_flags = IFF_UP;
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(53); // in a network of its own
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (!apart || ioctl(listener, SIOCSIFFLAGS, &loopback) != 0 ||
      bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    std::printf("cancel, hanging look-up: skipped, a network of its own is not permitted here\n");
    return;
  }
  measure("hanging look-up", times, "http://no-such-host.test/file.bin", [&](const Run&) {
    char query[512];
    return recv(listener, query, sizeof query, 0) > 0;
  });
  close(listener);
}

void idle_time_out(long times) {
  Defaults values;
  values.idle_timeout = 1s;
  set_defaults(values);
  const std::string body(10'000, 'x');
  const ScriptedServer silent(Reply{.body = body, .accept_ranges = false, .stall_after = 5000});
  const ScriptedServer drip(
      Reply{.body = body, .accept_ranges = false, .piece = 1000, .piece_delay = 400ms});
  const auto run_to_end = [](const ScriptedServer& server) {
    const TempDir dir;
    Run run(server.url(), dir / "file.bin");
    std::int64_t before = 0;
    auto last = Clock::now();
    pump_until([&] {
      if (run.received != std::exchange(before, run.received))
        last = Clock::now();
      return run.ended;
    });
    return std::pair(run.timed_out, ms_since(last));
  };
  std::vector<double> all;
  for (long i = 0; i < std::max(times / 20, 1L); ++i) {
    const auto [timed_out, after] = run_to_end(silent);
    all.push_back(after);
    faults += !timed_out || after < 900 || after > 3000;
  }
  const bool dripped = !run_to_end(drip).first;
  std::printf("idle time-out of 1000 ms fires after %.0f to %.0f ms of silence; a drip "
              "each 400 ms %s\n",
              quantile(all, 0), quantile(all, 1), dripped ? "is let through" : "TIMES OUT");
  faults += !dripped;
  set_defaults({});
}

} // namespace
} // namespace test

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const auto times = test::number_option(argc, argv, "--times", 100);
  // A process that has threads already cannot have namespaces of its own: a child comes first.
  const pid_t child = fork();
  if (child == 0) {
    test::hanging_look_up(times);
    std::fflush(stdout);
    _exit(test::faults ? 1 : 0);
  }
  ravelin::platform::set_file_calls(&test::flushes);
  int status = 0;
  waitpid(child, &status, 0);
  test::faults += status != 0;
  test::silent_server(times);
  test::silent_tls(times);
  test::busy_disk(times);
  test::idle_time_out(times);
  return test::faults ? 1 : 0;
}
