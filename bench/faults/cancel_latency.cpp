#include "bench/faults/pump.h"
#include "bench/faults/tally.h"
#include "platform/files/file_calls.h"
#include "ravelin/options.h"
#include "tests/harness/nginx.h"
#include "tests/harness/scripted_server.h"
#include "tests/harness/temp_dir.h"

#include <asio.hpp>
#include <cstdio>
#include <fstream>
#include <net/if.h>
#include <random>
#include <sched.h>
#include <sys/mount.h>
#include <sys/wait.h>

// How long it takes from `cancel()` to the final event, and when the idle time-out fires.
//   --times N   of each case (100)

namespace test {
namespace {
using namespace ravelin;
using namespace std::chrono_literals;
using asio::ip::tcp, asio::ip::udp;

struct SlowDisk : platform::FileCalls {
  int fdatasync(int) override { return std::this_thread::sleep_for(5ms), 0; }
};

int faults = 0;
using Ready = std::function<bool(const Run&)>;

// What passes from the moment at which a download is ready, and `act` done, to its end.
double ms_to_end(const std::string& link, const Ready& ready,
                 const std::function<void(Run&)>& act) {
  const TempDir dir;
  Run run;
  run.start(link, dir / "file", true, OnConflict::replace);
  pump_until([&] { return run.ended() || ready(run); });
  faults += run.ended(); // before it was ready
  const auto start = std::chrono::steady_clock::now();
  act(run);
  pump_until([&] { return run.ended(); });
  return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - start)
      .count();
}

void cancel(const char* when, long times, const std::string& link, const Ready& ready) {
  std::vector<double> all;
  while (static_cast<long>(all.size()) < times)
    all.push_back(ms_to_end(link, ready, [](Run& run) { run.opr->cancel(); }));
  std::printf("cancel, %-22s %4ld times: %6.1f ms (p50) %6.1f ms (p95) %6.1f ms (max)\n", when,
              times, quantile(all, 0.5), quantile(all, 0.95), quantile(all, 1));
  faults += std::ranges::count_if(all, [](double ms) { return ms >= 100; }) > (times + 19) / 20;
}

// In a child with a network and mounts of its own, where the only name server never answers.
void hanging_look_up(long times) {
  const TempDir dir;
  const auto put = [&](const char* name, const char* text) {
    return mount(dir.write(name, text).c_str(), ("/etc/" + std::string(name)).c_str(), nullptr,
                 MS_BIND, nullptr) == 0;
  };
  ifreq loopback{.ifr_ifrn = {"lo"}, .ifr_ifru = {}};
  loopback.ifr_flags = IFF_UP;
  asio::io_context io;
  if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 ||
      mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
      !put("resolv.conf", "nameserver 127.0.0.1\n") || !put("nsswitch.conf", "hosts: dns\n") ||
      ioctl(udp::socket(io, udp::v4()).native_handle(), SIOCSIFFLAGS, &loopback) != 0) {
    std::printf("cancel, hanging look-up: skipped, a network of its own is not permitted here\n");
    return;
  }
  udp::socket server(io, {asio::ip::address_v4::loopback(), 53});
  cancel("hanging look-up", times, "http://no-such-host.test/file.bin", [&](const Run&) {
    char query[512];
    return recv(server.native_handle(), query, sizeof query, MSG_DONTWAIT) > 0;
  });
}

void silent_servers(long times) {
  const ScriptedServer server(Reply{.header_delay = 24h});
  std::size_t seen = 0;
  cancel("silent server", times, server.url(),
         [&](const Run&) { return server.requests().size() > seen && ++seen > 0; });
  // Here each connection is accepted, and its greeting not answered.
  asio::io_context io;
  tcp::acceptor acceptor(io, {asio::ip::address_v4::loopback(), 0});
  acceptor.non_blocking(true);
  tcp::socket greeted(io);
  const auto port = std::to_string(acceptor.local_endpoint().port());
  cancel("silent TLS", times, "https://127.0.0.1:" + port, [&](const Run&) {
    asio::error_code nobody;
    greeted = acceptor.accept(nobody);
    char first;
    return !nobody && greeted.receive(asio::buffer(&first, 1)) == 1;
  });
}

void busy_disk(long times) {
  const Nginx server;
  std::ofstream(server.root() / "file.bin").close();
  std::filesystem::resize_file(server.root() / "file.bin", 2LL << 30);
  std::mt19937 random(1);
  std::int64_t enough = 0;
  cancel("full speed onto disk", times, server.url(), [&](const Run& run) {
    if (run.received == 0)
      enough = 1 + static_cast<std::int64_t>(random() % (64 << 20));
    return run.received > 0 && run.received >= enough;
  });
}

void idle_time_out(long times) {
  Options values;
  values.idle_timeout = 1s;
  set_default_options(values);
  const ScriptedServer server(Reply{.body = std::string(10'000, 'x'),
                                    .accept_ranges = false,
                                    .piece = 1000,
                                    .piece_delay = 400ms,
                                    .stall_after = 5000});
  std::vector<double> all;
  while (static_cast<long>(all.size()) < std::max(times / 20, 1L))
    all.push_back(ms_to_end(
        server.url(), [](const Run& run) { return run.received == 5000; }, [](Run&) {}));
  std::printf("idle time-out of 1000 ms, after a drip each 400 ms: %.0f to %.0f ms\n",
              quantile(all, 0), quantile(all, 1));
  faults += quantile(all, 0) < 900 || quantile(all, 1) > 3000;
}

} // namespace
} // namespace test

int main(int argc, char** argv) {
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  const auto times = test::number_option(argc, argv, "--times", 100);
  // A process that has threads already cannot have namespaces of its own: a child comes first.
  if (const pid_t child = fork(); child == 0) {
    test::hanging_look_up(times);
    std::fflush(stdout);
    _exit(test::faults ? 1 : 0);
  }
  wait(&test::faults);
  static test::SlowDisk disk;
  ravelin::platform::set_file_calls(&disk);
  test::silent_servers(times);
  test::busy_disk(times);
  test::idle_time_out(times);
  return test::faults ? 1 : 0;
}
