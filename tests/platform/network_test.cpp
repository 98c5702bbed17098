#include "platform/network/curl_errors.h"
#include "platform/network/data_task.h"
#include "platform/network/http_date.h"
#include "tests/harness/nginx.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <latch>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <thread>

namespace ravelin::platform {
namespace {

using namespace std::chrono_literals;
using test::Reply, test::ScriptedServer;
using Clock = std::chrono::steady_clock;
constexpr auto allow = ResponseDisposition::allow, cancel = ResponseDisposition::cancel;

TEST(Values, of_fields_and_codes_are_read_exactly_or_not_at_all) {
  EXPECT_EQ((ContentRange{0, 99, 1000}), parse_content_range("bytes 0-99/1000"));
  EXPECT_EQ((ContentRange{5, 5, {}}), parse_content_range(" BYTES 5-5/* "));
  for (const auto* bad :
       {"", "bytes */100", "bytes 9-0/10", "bytes 0-1", "items 0-1/2", "bytes 0-1/",
        "bytes 0-1/2/3", "bytes 0-1/2, bytes 4-5/9", "bytes -1-2/3", "bytes +0-1/2", "bytes 0-1/-5",
        "bytes 0/1-2", "bytes 0-9223372036854775808/*", "bytes 0-9/18446744073709551626",
        "bytes 0-99/99"})
    EXPECT_EQ(std::nullopt, parse_content_range(bad)) << bad;
  EXPECT_EQ(1794298375s, parse_http_date("Tue, 10 Nov 2026 08:12:55 GMT")->time_since_epoch());
  EXPECT_EQ(120s, parse_retry_after("120"));
  for (const auto* excessive :
       {"99999999999", "99999999999999999999", "Sun, 10 Nov 2097 08:12:55 GMT"})
    EXPECT_EQ(24h * 366, parse_retry_after(excessive));
  for (const auto* bad : {"", "-5", "1.5 h", "-99999999999999999999", "soon", "1 Jan 2015 07:28"})
    EXPECT_EQ(std::nullopt, parse_retry_after(bad)) << bad;
  EXPECT_EQ(URLError(-1003), url_error_for({CURLE_COULDNT_RESOLVE_PROXY, "", "localhost"}).code());
}

/// One request, and what its delegate was told.
struct Fetch : URLSessionDelegate, std::enable_shared_from_this<Fetch> {
  Options options;
  URLRequest request{URL()};
  std::function<void(DataTask&, ResponseHandler)> on_response = [](auto&, auto to) { to(allow); };
  std::function<void(DataTask&)> on_data = [](auto&) {};
  std::string answer, body;
  std::vector<Data> queued;
  std::size_t largest = 0; // chunk
  Clock::time_point end;
  std::promise<std::string> done;

  std::shared_ptr<DataTask> start(const std::string& link) {
    request.url = URL(link);
    options.proxy = options.proxy.value_or(""); // whatever the environment says
    const auto shared = URLSessionConfiguration::ephemeral(RequestSettings::snapshot(options));
    auto task = URLSession::make(shared, weak_from_this())->data_task(request);
    task->resume();
    return task;
  }
  /// Code, status, fields of one letter and body; of a long one, which must be a pattern, the size.
  std::string outcome() {
    auto told = done.get_future();
    return told.wait_for(30s) == std::future_status::ready ? told.get() : "the task does not end";
  }
  void urlSession(URLSession&, DataTask& task, const URLResponse& response,
                  ResponseHandler decide) override {
    answer += response.is_http ? " " + std::to_string(response.status) + " " : " file ";
    for (const auto& [name, value] : response.header_fields)
      answer += name.size() == 1 ? name + "=" + value + " " : "";
    on_response(task, std::move(decide));
  }
  void urlSession(URLSession& session, DataTask& task, Data data) override {
    body += data.text();
    largest = std::max(largest, data.size());
    on_data(task);
    queued.push_back(std::move(data)); // as for a writer who is slower
    session.delegate_queue().async([self = shared_from_this()] {
      EXPECT_GE(2U, self->queued.size());
      self->queued.clear();
    });
  }
  void urlSession(URLSession&, DataTask&, const std::optional<Error>& error) override {
    end = Clock::now();
    if (body.size() >= 100)
      body = std::to_string(body.size()) + (body == test::pattern(body.size()) ? "" : " wrong");
    done.set_value(std::to_string(error ? error->code().value() : 0) + answer + body); // once
  }
};

std::string fetch(const std::string& link, const Options& options = {}) {
  const auto request = std::make_shared<Fetch>();
  request->options = options;
  request->start(link);
  return request->outcome();
}

TEST(URLSession, tells_what_came_and_how_it_ended) {
  const auto big = test::pattern(100'000);
  const std::string ok = "HTTP/1.1 200 OK\r\n", field = "A: " + std::string(60'000, 'x') + "\r\n";
  const std::pair<Reply, std::string> answers[] = {
      {{.body = big, .piece = 999}, "0 200 100000"},
      {{.body = "a byte at once", .piece = 1, .piece_delay = 50ms}, "0 200 a byte at once"},
      {{.body = "length", .content_length = "abc"}, "0 200 length"},
      {{.raw = "HTTP/1.1 103 Hints\r\nE: 1\r\n\r\n" + ok + "\r\ninterim"}, "0 200 interim"},
      {{.raw = "HTTP/1.0 206 \nA:\t b:c \nB:\nC: \xe4\n\nb"}, "0 206 A=b:c B= C=\xc3\xa4 b"},
      {{.raw = ok + "A: 1\r\na:2\r\n 3\r\nB: 4\r\nb: 4\r\n\r\n"}, "0 200 A=1, 2 3 B=4, 4 "},
      {{.raw = "HTTP/1.1 302 Found\r\nLocation:\r\nA: 1\r\n\r\n"}, "0 302 A=1 "},
      {{.raw = "garbage\r\n"}, "-1011"},
      {{.close_at_once = true}, "-1005"},
      {{.raw = ok + "Cut: 1\r\n"}, "-1005"},
      {{.body = big, .cut_after = 70'000}, "-1005 200 70000"},
      {{.body = big, .reset_after = 70'000}, "-1005 200 70000"},
      {{.raw = ok + field + field + field + field + field + "\r\n"}, "-1011"},
      {{.status = 302, .headers = {{"Location", "/loop"}}}, "-1007"},
      {{.status = 302, .headers = {{"Location", "file:///etc/hostname"}}}, "-1002"},
      {{.header_delay = 1h}, "-1001"},
      {{.body = "stalls", .stall_after = 2}, "-1001 200 st"}};
  for (const auto& [reply, outcome] : answers)
    for (const auto& [late, little] : {std::pair(false, false), {true, false}, {true, true}}) {
      auto answer = reply;
      answer.chunked = late && !reply.content_length;
      const ScriptedServer server(answer);
      const auto fetch = std::make_shared<Fetch>();
      fetch->request.time_out_interval = 500ms;
      fetch->request.header_suffices = little;
      if (late)
        fetch->on_response = [&](auto&, auto decide) {
          run_in_background([request = fetch, decide] {
            std::this_thread::sleep_for(20ms); // for the end to come, mostly: either way is right
            EXPECT_EQ("", request->body);
            decide(allow);
          });
        };
      fetch->start(server.url());
      EXPECT_EQ(outcome, fetch->outcome()) << "case " << &reply - &answers[0].first;
    }
  EXPECT_EQ("0 file ", fetch("file:///nowhere/at/all"));
  for (const auto* link : {"", "nonsense", "http://a:99999/", "http://a/\r\nX: 1"})
    EXPECT_EQ("-1000", fetch(link)) << link;
  EXPECT_EQ("-1004-1002-1002", fetch("http://127.0.0.1:1") + fetch("ftp://a") + fetch("odd://a"));
}

TEST(URLSession, ends_a_header_and_trailers_that_never_end) {
  const std::string ok = "HTTP/1.1 200 OK\r\n", chunks = "Transfer-Encoding: chunked\r\n\r\n1\r\na";
  const std::pair<Reply, std::string> answers[] = {
      {{.raw = ok, .drip = "X: 1\r\n"}, "-1001"},
      {{.raw = "", .drip = "HTTP/1.1 103 Hints\r\nE: 1\r\n\r\n"}, "-1001"},
      {{.raw = ok + chunks + "\r\n0\r\n", .drip = "T: 1\r\n"}, "-1001 200 a"}};
  std::vector<std::pair<std::unique_ptr<ScriptedServer>, std::shared_ptr<Fetch>>> all;
  const auto begin = Clock::now();
  for (const auto& [reply, outcome] : answers) {
    all.emplace_back(std::make_unique<ScriptedServer>(reply), std::make_shared<Fetch>());
    all.back().second->options.idle_timeout = 300ms;
    all.back().second->start(all.back().first->url());
  }
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(answers[i].second, all[i].second->outcome());
    const auto time = all[i].second->end - begin;
    EXPECT_EQ(i < 2, time >= 3s) << "for ten times that of a server that is idle";
  }
}

TEST(URLSession, sends_what_is_configured_and_no_secret_to_other_hosts) {
  const ScriptedServer target(Reply{.headers = {{"L", "1"}}, .body = "body"});
  const ScriptedServer first([&](const test::Request& request) {
    const auto next = request.index < 5 ? "/" + std::to_string(request.index) : target.url();
    return Reply{.status = 302, .headers = {{"Location", next}}};
  });
  const test::Nginx nginx({.tls = true});
  std::ofstream(nginx.root() / "file.bin") << "body";
  EXPECT_EQ("-1202", fetch(nginx.url())) << "an unknown certificate was trusted";
  Options options;
  options.ca_bundle = nginx.ca_file().string();
  options.headers = {{"Authorization", "secret"}, {"X-Both", "1"}, {"X-Empty", ""}};
  options.user_agent = "agent/1";
  EXPECT_EQ("0 200 body", fetch(nginx.url(), options));
  EXPECT_EQ("0 200 L=1 body", fetch(first.url(), options));
  EXPECT_EQ("secret", first.requests().at(5).header("Authorization"));
  options = {};
  options.proxy = target.url("");
  EXPECT_EQ("0 200 L=1 body", fetch("http://host.invalid/a", options));
  std::string seen;
  for (const auto& each : target.requests())
    for (const auto* name : {"X-Both", "X-Empty", "Authorization", "User-Agent", "Accept-Encoding"})
      seen += each.header(name).value_or(each.target) + " ";
  EXPECT_EQ(0U, seen.find("/file.bin /file.bin /file.bin agent/1 identity http://host.invalid/a "))
      << seen;
}

/// In a network and with mounts of its own, for this thread and those that it starts.
void enter_namespaces(const test::TempDir& dir) {
  unshare(CLONE_NEWNET | CLONE_NEWNS);
  mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr);
  for (const std::string name : {"resolv.conf", "nsswitch.conf"})
    mount((dir / name).c_str(), ("/etc/" + name).c_str(), nullptr, MS_BIND, nullptr);
}

TEST(URLSessionDeathTest, tells_no_network_from_a_host_that_is_away_and_may_hang_in_a_look_up) {
  if (test::ChildProcess({"unshare", "-nm", "true"}).wait() != 0)
    GTEST_SKIP() << "no network namespace can be made here";
  const test::TempDir dir;
  dir.write("resolv.conf", "nameserver 127.0.0.1\n");
  dir.write("nsswitch.conf", "hosts: dns\n");
  const auto ask_alone = [&] {
    enter_namespaces(dir);
    std::cerr << fetch("http://host.invalid/") << fetch("http://127.0.0.1/");
    ifreq loopback{.ifr_ifrn = {"lo"}, .ifr_ifru = {}};
    loopback.ifr_flags = IFF_UP;
    const int name_server = socket(AF_INET, SOCK_DGRAM, 0); // which never answers
    const sockaddr_in place{AF_INET, htons(53), {htonl(INADDR_LOOPBACK)}, {}};
    if (ioctl(name_server, SIOCSIFFLAGS, &loopback) != 0 ||
        bind(name_server, reinterpret_cast<const sockaddr*>(&place), sizeof place) != 0)
      _exit(1);
    const auto request = std::make_shared<Fetch>();
    const auto task = request->start("http://host.test/");
    char query;
    recv(name_server, &query, 1, 0);
    const auto begin = Clock::now();
    task->cancel();
    std::cerr << request->outcome() << (Clock::now() - begin < 1s ? " at once" : " late");
    _exit(0);
  };
  EXPECT_EXIT(ask_alone(), testing::ExitedWithCode(0), "-1009-1004-999 at once");
}

TEST(DataTask, collects_bytes_that_arrive_slowly) {
  const ScriptedServer server(
      Reply{.body = test::pattern(6000), .piece = 100, .piece_delay = 10ms});
  const auto request = std::make_shared<Fetch>();
  int chunks = 0;
  request->on_data = [&](auto&) { ++chunks; };
  request->start(server.url());
  EXPECT_EQ("0 200 6000", request->outcome());
  EXPECT_TRUE(chunks > 1 && chunks < 20) << chunks;
}

TEST(DataTask, waits_for_a_slow_delegate_and_ends_when_cancelled_or_alone) {
  enum When { slow_response, slow_data, cancel_request, cancel_response, disallow, cancel_data };
  const Reply big{.body = test::pattern(12 << 20), .stall_after = 12'000'000},
      stalls{.body = "body", .stall_after = 2}, cut{.body = "body", .cut_after = 2};
  const std::tuple<When, Reply, const char*> cases[] = {
      {slow_response, big, "-1001 200 12000000"},
      {slow_data, big, "-1001 200 12000000"},
      {cancel_request, {.header_delay = 1h}, "-999"},
      {cancel_response, stalls, "-999 200 "},
      {disallow, cut, "-999 200 "},
      {cancel_data, stalls, "-999 200 bo"}};
  for (const auto& [when, reply, outcome] : cases) {
    const ScriptedServer server(reply);
    const auto request = std::make_shared<Fetch>();
    request->options.idle_timeout = 1s;
    const auto hold = [&] {
      std::this_thread::sleep_for(1200ms); // the delay that must do no harm
      EXPECT_LT(server.bytes_sent(), 12'000'000) << "nothing holds the server back";
    };
    request->on_response = [&, now = when](auto& task, auto decide) {
      now == slow_response ? hold() : std::this_thread::sleep_for(20ms); // for the cut
      now == cancel_response ? task.cancel() : decide(now == disallow ? cancel : allow);
    };
    request->on_data = [&, now = when](auto& task) mutable {
      now == slow_data ? hold() : now == cancel_data ? task.cancel() : void();
      now = slow_response; // once
    };
    const auto task = request->start(server.url());
    server.wait_for_requests(1);
    when == cancel_request ? task->cancel() : void();
    EXPECT_EQ(outcome, request->outcome());
    EXPECT_LE(request->largest, 768U * 1024);
    task->cancel();
  }
  std::promise<void> gone;
  const ScriptedServer server([&](auto&) { return gone.get_future().wait(), stalls; });
  const std::weak_ptr<DataTask> alone = std::make_shared<Fetch>()->start(server.url());
  gone.set_value();
  for (int i = 0; i < 9999 && !alone.expired(); ++i)
    std::this_thread::sleep_for(1ms); // nothing tells of a task's end
  EXPECT_TRUE(alone.expired());
}

TEST(URLSession, keeps_all_requests_together_below_the_rate_and_lets_them_take_turns) {
  const ScriptedServer server(Reply{.body = test::pattern(250'000)});
  Options process;
  process.rate_limit = 1'000'000;
  set_default_options(process);
  std::vector<std::shared_ptr<Fetch>> all(4);
  std::latch answered(4);
  const auto begin = Clock::now();
  for (auto& request : all) {
    request = std::make_shared<Fetch>();
    request->options.rate_limit = 2'000'000; // its own, which does not matter here
    request->request.header_suffices = true; // no body before all are there
    request->on_response = [&](auto&, auto decide) { answered.arrive_and_wait(), decide(allow); };
    request->start(server.url());
  }
  for (const auto& request : all)
    EXPECT_EQ("0 200 250000", request->outcome());
  std::ranges::sort(all, {}, [](const auto& request) { return request->end; });
  const auto last = all[3]->end - begin;
  EXPECT_TRUE(last > 800ms && last < 5s) << last.count(); // 1 s, less what needs no waiting
  EXPECT_GT(all[0]->end - begin, last / 2) << "they do not take turns";
  set_default_options({});
  const auto alone = std::make_shared<Fetch>();
  alone->options.rate_limit = 250'000;
  const auto start = Clock::now();
  alone->start(server.url());
  EXPECT_EQ("0 200 250000", alone->outcome());
  EXPECT_GT(alone->end - start, 800ms) << "its own limit";
}

} // namespace
} // namespace ravelin::platform
