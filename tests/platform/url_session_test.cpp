#include "platform/network/block_pool.h"
#include "platform/network/data_task.h"
#include "tests/harness/loopback_socket.h"
#include "tests/harness/nginx.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <barrier>
#include <fstream>
#include <future>
#include <gtest/gtest.h>
#include <latch>
#include <sched.h>
#include <thread>

namespace ravelin::platform {
namespace {

using namespace std::chrono_literals;
using test::Reply;
using test::ScriptedServer;

/// One request, and what its delegate was told.
class Fetch : public URLSessionDelegate, public std::enable_shared_from_this<Fetch> {
public:
  // Set before the start.
  std::string range;
  std::chrono::milliseconds interval = 60s;
  ResponseDisposition disposition = ResponseDisposition::allow;
  std::function<void()> on_response = [] {}, on_data = [] {};
  bool decides = true; // before the call ends
  // To be read after the wait.
  std::vector<URLResponse> responses;
  std::string body;
  std::size_t largest_chunk = 0;
  std::optional<Error> error;
  std::chrono::steady_clock::duration time{};
  ResponseHandler decide_late;

  std::shared_ptr<DataTask> start(const std::string& link) {
    URLRequest request{URL(link)};
    request.time_out_interval = interval;
    if (!range.empty())
      request.set_header_field("Range", range);
    time = std::chrono::steady_clock::now().time_since_epoch();
    const auto session = URLSession::make(URLSessionConfiguration::ephemeral(), weak_from_this());
    auto task = session->data_task(std::move(request));
    task->resume();
    return task;
  }
  Fetch& wait() {
    if (done_.get_future().wait_for(30s) != std::future_status::ready)
      throw std::runtime_error("the request does not end");
    return *this;
  }
  /// Code, status and body; of a long body, which must be a pattern, only the size.
  std::string summary() const {
    auto text = std::to_string(error ? error->code().value() : 0);
    for (const auto& each : responses)
      text += each.is_http ? " " + std::to_string(each.status) : " file";
    if (body.size() < 100)
      return text + " " + body;
    const bool right = body == test::pattern(body.size());
    return text + " " + std::to_string(body.size()) + (right ? " bytes" : " wrong bytes");
  }

  void urlSession(URLSession&, DataTask&, const URLResponse& response,
                  ResponseHandler decide) override {
    EXPECT_EQ(0u, response.header_fields.count("Early")) << "a field of an earlier answer";
    responses.push_back(response);
    if (decides) {
      on_response();
      decide(disposition);
    } else {
      decide_late = std::move(decide);
      on_response();
    }
  }
  void urlSession(URLSession&, DataTask&, const Data& data) override {
    EXPECT_EQ(1u, responses.size());
    body += data.text();
    largest_chunk = std::max(largest_chunk, data.size());
    on_data();
  }
  void urlSession(URLSession&, DataTask&, const std::optional<Error>& the_error) override {
    error = the_error;
    time = std::chrono::steady_clock::now().time_since_epoch() - time;
    done_.set_value(); // a second call would throw, and end the process
  }

private:
  std::promise<void> done_;
};

using Prepare = std::function<void(Fetch&)>;
void as_it_is(Fetch&) {}

std::shared_ptr<Fetch> fetch(const std::string& link, const Prepare& prepare = as_it_is) {
  const auto request = std::make_shared<Fetch>();
  prepare(*request);
  request->start(link);
  request->wait();
  return request;
}

Reply raw(const std::string& text) {
  return {.raw = text};
}
Reply to(const std::string& link) {
  return {.status = 302, .headers = {{"Location", link}, {"Early", "1"}}, .body = "moved"};
}

class URLSessionTest : public testing::Test {
protected:
  URLSessionTest() {
    values.proxy = ""; // whatever the environment says
    use();
  }
  ~URLSessionTest() override { set_defaults({}); }
  void use() { set_defaults(values); }

  struct Case {
    const char* name;
    Reply reply;
    std::string outcome; // the summary
  };
  static void check(const std::vector<Case>& cases, const Prepare& prepare = as_it_is) {
    for (const auto& [name, reply, outcome] : cases) {
      SCOPED_TRACE(name);
      const ScriptedServer server([&answer = reply](const test::Request& request) {
        return request.target == "/garbage" ? raw("garbage\r\n") : answer;
      });
      const auto request = fetch(server.url(), prepare);
      EXPECT_EQ(outcome, request->summary()) << (request->error ? request->error->text() : "");
    }
  }

  Defaults values;
};

TEST_F(URLSessionTest, delivers_one_response_and_its_body) {
  const auto big = test::pattern(300'000);
  const auto length = [](const char* n) { return Reply{.body = "body", .content_length = n}; };
  const std::string ok = "HTTP/1.1 200 OK\r\n", chunked = ok + "Transfer-Encoding: chunked\r\n\r\n";
  check({{"plain", {.body = big}, "0 200 300000 bytes"},
         {"chunked", {.body = big, .chunked = true, .piece = 999}, "0 200 300000 bytes"},
         {"until close", {.body = big, .send_length = false}, "0 200 300000 bytes"},
         {"empty", {}, "0 200 "},
         {"empty and chunked", {.chunked = true}, "0 200 "},
         {"empty until close", {.send_length = false}, "0 200 "},
         {"not found", {.status = 404, .body = "words"}, "0 404 words"},
         {"length of letters", length("abc"), "0 200 body"},
         {"empty length", length(""), "0 200 body"},
         {"negative length", length("-4"), "0 200 body"},
         {"length beyond 64 bits", length("99999999999999999999"), "0 200 body"},
         {"interim", raw("HTTP/1.1 103 Hints\r\nEarly: 1\r\n\r\n" + ok + "\r\nbody"), "0 200 body"},
         {"trailers", raw(chunked + "4\r\nbody\r\n0\r\nEarly: 1\r\n\r\n"), "0 200 body"},
         {"line feeds", raw("HTTP/1.0 206 \ncontent-length:4\n\nbody"), "0 206 body"}});
}

TEST_F(URLSessionTest, tells_how_an_answer_failed_and_keeps_what_came_before) {
  const auto big = test::pattern(100'000);
  const std::string ok = "HTTP/1.1 200 OK\r\n", long_field = "A: " + std::string(4 << 20, 'x');
  auto fields = ok;
  for (int i = 0; i < 4000; ++i)
    fields += "A" + std::to_string(i) + ": " + std::string(1000, 'x') + "\r\n";
  check({{"not HTTP", raw("garbage\r\n"), "-1011 "},
         {"not HTTP after a redirect", to("/garbage"), "-1011 "},
         {"empty reply", {.close_at_once = true}, "-1005 "},
         {"cut head", raw(ok + "X: 1\r\n"), "-1005 "},
         {"cut body", {.body = big, .cut_after = 70'000}, "-1005 200 70000 bytes"},
         {"cut chunks", {.body = big, .chunked = true, .cut_after = 999}, "-1005 200 999 bytes"},
         {"reset", {.body = big, .reset_after = 70'000}, "-1005 200 70000 bytes"},
         {"4 MB of fields", raw(fields + "\r\n"), "-1011 "},
         {"4 MB of one field", raw(ok + long_field + "\r\n\r\n"), "-1011 "},
         {"two lengths", raw(ok + "Content-Length: 4\r\nContent-Length: 5\r\n\r\nbody"),
          "-1005 200 body"},
         {"redirect loop", to("/again"), "-1007 "},
         {"redirect to a file", to("file:///etc/hostname"), "-1002 "},
         {"redirect to FTP", to("ftp://127.0.0.1/"), "-1002 "},
         {"redirect to an unknown scheme", to("madeup://127.0.0.1/"), "-1002 "},
         {"redirect to no link", to("http://"), "-1000 "}});
}

TEST_F(URLSessionTest, tells_why_a_link_cannot_be_asked) {
  const test::LoopbackSocket closed(test::LoopbackSocket::Use::reserve);
  const auto host = "127.0.0.1:" + std::to_string(closed.port());
  const std::pair<std::string, const char*> cases[] = {{"", "-1000 "},
                                                       {"nonsense", "-1000 "},
                                                       {"http://", "-1000 "},
                                                       {"http://[::1/", "-1000 "},
                                                       {"http://" + host + "9/", "-1000 "},
                                                       {"http://" + host + "/a b", "-1000 "},
                                                       {"http://" + host + "/\r\nX: 1", "-1000 "},
                                                       {"http://" + host, "-1004 "},
                                                       {"madeup://" + host, "-1002 "},
                                                       {"ftp://" + host, "-1002 "},
                                                       {"file:///nowhere/at/all", "0 file "}};
  for (const auto& [link, outcome] : cases)
    EXPECT_EQ(outcome, fetch(link)->summary()) << link;
}

TEST_F(URLSessionTest, answers_for_a_local_file_with_a_response_that_is_not_http) {
  const test::TempDir dir;
  for (const auto* text : {"", "some text"}) {
    const auto link = URL::file(dir.write("a b", text)).text();
    const auto request = fetch(link, [](Fetch& f) { f.disposition = ResponseDisposition::cancel; });
    EXPECT_TRUE(request->summary() == "0 file " || request->summary() == "-999 file ")
        << request->summary() << request->error->text();
  }
}

TEST_F(URLSessionTest, follows_redirects_and_tells_no_secret_to_other_hosts) {
  const ScriptedServer target(Reply{.headers = {{"Last", "1"}}, .body = "body"});
  const ScriptedServer first([&](const test::Request& request) {
    return to(request.index < 5 ? "/" + std::to_string(request.index) : target.url());
  });
  values.headers = {{"Authorization", "Bearer secret"}, {"X-Both", "1"}};
  values.user_agent = "agent/1";
  use();
  const auto request = fetch(first.url(), [](Fetch& f) { f.range = "bytes=0-3"; });
  EXPECT_EQ("0 206 body", request->summary());
  EXPECT_EQ(1u, request->responses.at(0).header_fields.count("Last"));
  EXPECT_EQ(6u, first.requests().size());
  EXPECT_EQ("Bearer secret", first.requests().at(0).header("Authorization"));
  const std::pair<const char*, const char*> at_target[] = {{"X-Both", "1"},
                                                           {"User-Agent", "agent/1"},
                                                           {"Range", "bytes=0-3"},
                                                           {"Accept-Encoding", "identity"},
                                                           {"Authorization", "none"}};
  for (const auto& [name, value] : at_target)
    EXPECT_EQ(value, target.requests().at(0).header(name).value_or("none")) << name;
}

TEST_F(URLSessionTest, trusts_the_configured_certificates_only) {
  const test::Nginx plain, nginx({.tls = true});
  std::ofstream(nginx.root() / "file.bin") << "body";
  EXPECT_EQ("-1200 ", fetch("https" + plain.url().substr(4))->summary());
  EXPECT_EQ("-1202 ", fetch(nginx.url())->summary());
  values.ca_bundle = nginx.ca_file().string();
  use();
  EXPECT_EQ("0 200 body", fetch(nginx.url())->summary());
}

TEST_F(URLSessionTest, tells_a_machine_without_a_network_from_a_host_that_is_away) {
  if (test::ChildProcess({"unshare", "-n", "true"}).wait() != 0)
    GTEST_SKIP() << "no network namespace can be made here";
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto ask_alone = [] {
    unshare(CLONE_NEWNET); // for this thread and those that it starts
    for (const auto* link : {"http://host.invalid/", "http://192.0.2.1/", "http://127.0.0.1/"})
      std::cerr << fetch(link)->summary();
    _exit(0);
  };
  EXPECT_EXIT(ask_alone(), testing::ExitedWithCode(0), "-1009 -1009 -1004 ");
}

TEST_F(URLSessionTest, times_out_when_the_server_is_silent_for_the_interval) {
  check({{"no head", {.header_delay = 1h}, "-1001 "},
         {"no body", {.body = "body", .stall_after = 0}, "-1001 200 "},
         {"half a body", {.body = "body", .stall_after = 2}, "-1001 200 bo"},
         {"half a chunk", {.body = "body", .chunked = true, .stall_after = 2}, "-1001 200 bo"}},
        [](Fetch& f) { f.interval = 500ms; });
}

TEST_F(URLSessionTest, lets_drips_and_slow_delegates_outlast_the_interval) {
  enum Slow { server_is, response_is, chunk_is };
  constexpr int size = 12 << 20;
  const Reply drip{.body = "thirteen bits", .piece = 1, .piece_delay = 100ms},
      big{.body = test::pattern(size)};
  for (const auto slow : {server_is, response_is, chunk_is}) {
    SCOPED_TRACE(slow);
    for (int i = 0; slow == chunk_is && i < 64; ++i)
      BlockPool::instance().note_flush(1ms); // storage that is worth the larger chunks
    const ScriptedServer server(slow == server_is ? drip : big);
    const auto hold = [&, held = false]() mutable {
      if (std::exchange(held, true))
        return;
      std::this_thread::sleep_for(2200ms); // the delay that must do no harm
      EXPECT_LT(server.bytes_sent(), size) << "nothing holds the server back";
    };
    const auto request = fetch(server.url(), [&](Fetch& f) {
      f.interval = slow == server_is ? 1s : 2s;
      if (slow != server_is)
        (slow == response_is ? f.on_response : f.on_data) = hold;
    });
    EXPECT_EQ(slow == server_is ? "0 200 thirteen bits" : "0 200 12582912 bytes",
              request->summary());
    EXPECT_GE(request->time, slow == server_is ? 1200ms : 2200ms);
    EXPECT_TRUE(slow != chunk_is || request->largest_chunk > 512 * 1024) << "chunks do not grow";
  }
}

TEST_F(URLSessionTest, goes_on_where_there_was_no_second_block_to_fill) {
  for (int i = 0; i < 1000 && BlockPool::instance().has_slow_storage(); ++i)
    BlockPool::instance().note_flush(0ns);
  const ScriptedServer server(Reply{.body = test::pattern(4 << 20)});
  std::vector<std::shared_ptr<Fetch>> all;
  std::barrier all_hold_a_chunk(4);
  for (int i = 0; i < 4; ++i) {
    const auto& request = all.emplace_back(std::make_shared<Fetch>());
    request->on_data = [&, held = false]() mutable {
      if (std::exchange(held, true))
        return;
      all_hold_a_chunk.arrive_and_wait();
      std::this_thread::sleep_for(50ms); // for the network thread to ask; it is right either way
    };
    request->start(server.url());
  }
  for (const auto& request : all)
    EXPECT_EQ("0 200 4194304 bytes", request->wait().summary());
}

TEST_F(URLSessionTest, keeps_data_and_end_until_the_delegate_has_decided) {
  const Reply whole{.body = "thirteen bits"}, cut{.body = "body", .cut_after = 2};
  constexpr auto allow = ResponseDisposition::allow, cancel = ResponseDisposition::cancel;
  const std::tuple<Reply, ResponseDisposition, const char*> cases[] = {
      {whole, allow, "0 200 thirteen bits"},
      {whole, cancel, "-999 200 "},
      {cut, allow, "-1005 200 bo"},
      {cut, cancel, "-999 200 "}};
  for (const auto& [reply, disposition, outcome] : cases) {
    SCOPED_TRACE(outcome);
    const ScriptedServer server(reply);
    const auto request = std::make_shared<Fetch>();
    std::promise<void> answered;
    request->decides = false;
    request->on_response = [&] { answered.set_value(); };
    request->start(server.url());
    answered.get_future().wait();
    std::this_thread::sleep_for(50ms); // so that the end has come, mostly; it is right either way
    EXPECT_EQ("", request->body);
    std::exchange(request->decide_late, nullptr)(disposition);
    EXPECT_EQ(outcome, request->wait().summary());
  }
  const auto limit = std::chrono::steady_clock::now() + 5s; // the last task may outlive its request
  while (!BlockPool::instance().has_spare() && std::chrono::steady_clock::now() < limit)
    std::this_thread::sleep_for(1ms);
  EXPECT_TRUE(BlockPool::instance().has_spare()) << "refused bodies were not given back";
}

TEST_F(URLSessionTest, cancels_promptly_and_once) {
  enum When { at_request, at_data, by_disposition };
  const Reply stalling{.body = "body", .stall_after = 2};
  const std::tuple<When, Reply, const char*> cases[] = {{at_request, {.header_delay = 1h}, "-999 "},
                                                        {at_data, stalling, "-999 200 bo"},
                                                        {by_disposition, stalling, "-999 200 "}};
  for (const auto& [when, reply, outcome] : cases) {
    SCOPED_TRACE(when);
    const ScriptedServer server(reply);
    const auto request = std::make_shared<Fetch>();
    std::promise<void> data_came;
    request->on_data = [&] { data_came.set_value(); };
    if (when == by_disposition)
      request->disposition = ResponseDisposition::cancel;
    const auto task = request->start(server.url());
    server.wait_for_requests(1);
    if (when == at_data)
      data_came.get_future().wait();
    if (when != by_disposition)
      task->cancel();
    EXPECT_EQ(outcome, request->wait().summary());
    EXPECT_LT(request->time, 5s);
    task->cancel();
  }
}

TEST_F(URLSessionTest, keeps_concurrent_requests_apart_and_together_below_the_rate) {
  const ScriptedServer server(Reply{.body = test::pattern(250'000), .send_length = false});
  values.rate_limit = 1'000'000;
  use();
  std::vector<std::shared_ptr<Fetch>> all;
  std::latch answered(4);
  for (int i = 0; i < 8; ++i) {
    const auto& request = all.emplace_back(std::make_shared<Fetch>());
    request->decides = i % 2;
    if (!request->decides)
      request->on_response = [&] { answered.count_down(); };
    const auto task = request->start(server.url());
    if (i % 2)
      task->cancel();
  }
  answered.wait(); // or else the first would be ahead of those that a busy machine starts later
  const auto begin = std::chrono::steady_clock::now().time_since_epoch();
  for (std::size_t i = 0; i < all.size(); i += 2) {
    all[i]->time = begin;
    std::exchange(all[i]->decide_late, nullptr)(ResponseDisposition::allow);
  }
  std::chrono::steady_clock::duration first = 1h, last{};
  for (std::size_t i = 0; i < all.size(); ++i) {
    EXPECT_EQ(i % 2 ? "-999 " : "0 200 250000 bytes", all[i]->wait().summary());
    if (i % 2 == 0) {
      first = std::min(first, all[i]->time);
      last = std::max(last, all[i]->time);
    }
  }
  EXPECT_TRUE(last > 800ms && last < 5s) << last.count(); // 1 s, less what needs no waiting
  EXPECT_GT(first, last / 2) << "they take turns";
}

TEST_F(URLSessionTest, rejects_http_errors_when_asked_to) {
  const std::tuple<int, const char*, int> cases[] = {{200, "1", 0},
                                                     {204, "1", 1},
                                                     {400, "120", 120},
                                                     {503, "soon", 0},
                                                     {599, "-5", 0},
                                                     {503, "Wed, 21 Oct 2015 07:28:00 GMT", 0},
                                                     {503, "99999999999999999999", 366 * 86400}};
  values.reject_http_errors = true;
  use();
  for (const auto& [status, retry_after, seconds] : cases) {
    SCOPED_TRACE(status);
    const ScriptedServer server(Reply{.status = status, .headers = {{"Retry-After", retry_after}}});
    const auto request = fetch(server.url());
    EXPECT_EQ(status == 200 ? "0 200 " : "-1011 ", request->summary());
    if (!request->error)
      continue;
    const auto& error = *request->error->get_if<URLLoadingError>();
    EXPECT_NE(std::string::npos, request->error->text().find(std::to_string(status)));
    EXPECT_EQ(URLLoadingError::Refusal::http_status, error.refusal);
    EXPECT_EQ(status, error.http_status);
    EXPECT_EQ(seconds, error.retry_after.value_or(0s).count());
  }
}

TEST_F(URLSessionTest, requires_exact_ranges_when_asked_to) {
  const std::string body = "01234567890123456789 and more";
  const auto until_close = [](const std::string& text) {
    return raw("HTTP/1.1 206 P\r\nContent-Range: bytes 10-19/*\r\n\r\n" + text);
  };
  const auto range = [](Fetch& f) { f.range = "bytes=10-19"; };
  const Reply all{.body = body, .honour_ranges = false};
  const Reply other{.body = body, .content_range = "bytes 10-20/28"};
  check({{"all", all, "0 200 " + body}, {"other", other, "0 206 0123456789"}}, range);
  values.require_exact_ranges = true;
  use();
  check({{"all, as asked", {.body = body}, "0 200 " + body},
         {"a part, not asked", until_close("0123456789"), "-1011 "}});
  check({{"exact", {.body = body}, "0 206 0123456789"},
         {"exact until close", until_close("0123456789"), "0 206 0123456789"},
         {"all", all, "-1011 "},
         {"other", other, "-1011 "},
         {"none", {.body = "short"}, "-1011 "},
         {"unnamed", {.body = body, .content_range = ""}, "-1011 "},
         {"too short", until_close("012345678"), "-1005 206 012345678"},
         {"too long", until_close("0123456789x"), "-1011 206 "}},
        range);
}

} // namespace
} // namespace ravelin::platform
