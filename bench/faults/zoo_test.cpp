#include "tests/app/program.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <map>
#include <string>
#include <thread>
#include <vector>

// The program against servers that break the rules: the right file or a refusal, never a wrong
// file, a hang or a crash.

namespace test {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string body = pattern(400'003);
const Reply plain{.body = body};

struct Beast {
  const char* name;
  bool right; // the program ends with the right file; otherwise it refuses
  Script script;
  std::vector<std::string> arguments{};
  Script before{}; // a first run, which fails, meets this server
  std::string says{};
};

// `faulty` for the first requests of each kind that `hit` picks, `plain` for all others.
using Pick = std::function<bool(const Request&)>;
Script first(int count, Reply faulty, Pick hit) {
  return [=, left = count](const Request& request) mutable {
    return hit(request) && left-- > 0 ? faulty : plain;
  };
}
bool any(const Request&) {
  return true;
}
bool ranged(const Request& request) {
  return request.header("Range").has_value();
}
bool later(const Request& request) {
  return request.index > 0;
}
bool second_half(const Request& request) {
  return ranged(request) && std::stoll(request.header("Range")->substr(6)) > 200'000;
}
Script always(Reply reply, Pick hit = any) {
  return first(1'000'000, std::move(reply), hit);
}

Reply with(Headers headers) {
  return {.headers = std::move(headers), .body = body};
}
Reply raw(const std::string& head, const std::string& content = body) {
  return {.raw = head + "\r\n\r\n" + content};
}

const std::string ok = "HTTP/1.1 200 OK\r\n";
const std::string length = "Content-Length: 400003";

std::vector<Beast> zoo() {
  return {
      {"plain", true, always(plain)},
      {"no ranges", true, always({.body = body, .accept_ranges = false})},
      {"ranges not honoured",
       true,
       always({.body = body, .honour_ranges = false}),
       {},
       {},
       "in one piece"},
      {"wrong content range",
       true,
       always({.body = body, .content_range = "bytes 0-9/400003"}),
       {},
       {},
       "in one piece"},
      {"content range of another total",
       true,
       always({.body = body, .content_range = "bytes 0-80000/80001"}, ranged),
       {},
       {},
       "in one"},
      {"no content range", true, always({.body = body, .content_range = ""}), {}, {}, "in one"},
      {"206 for the whole",
       false,
       always(raw("HTTP/1.1 206 Some\r\nContent-Range: bytes 0-400002/400003\r\n" + length)),
       {},
       {},
       "answered with a part"},
      {"cut once", true, first(1, {.body = body, .cut_after = 5000}, later)},
      {"cut always, with progress", true,
       always({.body = body, .piece = 15'000, .piece_delay = 120ms, .cut_after = 45'000})},
      {"cut always, no progress", false, always({.body = body, .cut_after = 0})},
      {"cut always, no ranges", false,
       always({.body = body, .accept_ranges = false, .cut_after = 5000})},
      {"reset once", true, first(1, {.body = body, .reset_after = 5000}, later)},
      {"reset always", false, always({.body = body, .reset_after = 0}, later)},
      {"body too long", true, always(raw(ok + length, body + "more"))},
      {"ranges too long",
       true,
       always(raw("HTTP/1.1 206 OK\r\nContent-Range: bytes 0-80000/400003"), second_half),
       {},
       {},
       "in one piece"},
      {"404", false, always({.status = 404, .body = body}), {}, {}, "404"},
      {"500", false, always({.status = 500, .body = body}), {}, {}, "500"},
      {"503, then fine", true, first(2, {.status = 503, .headers = {{"Retry-After", "1"}}}, any)},
      {"429 for the parts, then fine", true, first(3, {.status = 429}, ranged)},
      {"some parts refused, 503 once", true, first(2, {.status = 503, .body = "x"}, second_half)},
      {"some parts refused, 503", false, always({.status = 503, .body = "x"}, second_half)},
      {"some parts refused, 403", true, always({.status = 403, .body = "x"}, second_half)},
      {"416 for the parts", true, always({.status = 416, .body = "x"}, ranged)},
      {"416 always", false, always({.status = 416, .body = "x"})},
      {"chunked", true, always({.body = body, .chunked = true})},
      {"chunked, cut", false, always({.body = body, .chunked = true, .cut_after = 5000})},
      {"chunked, nonsense", false, always(raw(ok + "Transfer-Encoding: chunked", "zz\r\n" + body))},
      {"until close", true, always({.body = body, .send_length = false})},
      {"redirect", true,
       [](const Request& request) -> Reply {
         return request.target == "/real"
                    ? plain
                    : Reply{.status = 302, .headers = {{"Location", "/real"}}};
       }},
      {"redirect loop", false, always({.status = 302, .headers = {{"Location", "/file.bin"}}})},
      {"redirect to a file", false,
       always({.status = 302, .headers = {{"Location", "file:///etc/passwd"}}})},
      {"redirect without a place", false, always({.status = 302, .headers = {{"Location", "//"}}})},
      {"not HTTP", false, always(raw("SSH-2.0-server", ""))},
      {"nonsense", false, always({.raw = body})},
      {"empty reply", false, always({.close_at_once = true})},
      {"head cut", false, always({.raw = ok + "Content-Le"})},
      {"interim answers first", true,
       always(raw("HTTP/1.1 103 Early Hints\r\nLink: </>\r\n\r\n" + ok + length))},
      {"no version", true, always(raw("HTTP/1.0 200\r\n" + length))},
      {"two lengths", false, always(raw(ok + length + "\r\nContent-Length: 17"))},
      {"length too long", false, always({.body = body, .content_length = "9000000"})},
      {"unbelievable length", false,
       always({.body = body, .content_length = "9223372036854775807"})},
      {"ETag differs between parts",
       false,
       [](const Request& request) {
         return with({{"ETag", second_half(request) ? "\"two\"" : "\"one\""}});
       },
       {},
       {},
       "changed"},
      {"Last-Modified differs between parts",
       false,
       [](const Request& request) {
         return with({{"Last-Modified", second_half(request) ? "Tue, 10 Nov 2026 08:12:54 GMT"
                                                             : "Tue, 10 Nov 2026 08:12:53 GMT"}});
       },
       {},
       {},
       "changed"},
      {"length differs between parts", false,
       [](const Request& request) { return Reply{.body = request.index ? body + "more" : body}; }},
      {"modified between two runs",
       false,
       always(with({{"Last-Modified", "Tue, 10 Nov 2026 09:12:55 GMT"}})),
       {},
       [](const Request&) {
         return Reply{.body = pattern(body.size(), 2),
                      .piece = 9000,
                      .piece_delay = 60ms,
                      .cut_after = 40'000};
       },
       "--on-conflict replace"},
      {"ETag differs between two runs",
       false,
       always(with({{"ETag", "\"two\""}})),
       {},
       [](const Request&) {
         return Reply{.headers = {{"ETag", "\"one\""}},
                      .body = pattern(body.size(), 2),
                      .piece = 9000,
                      .piece_delay = 60ms,
                      .cut_after = 40'000};
       },
       "--on-conflict replace"},
      {"zero length", false, always({.body = ""})},
      {"206 unasked, a part", false,
       always(raw("HTTP/1.1 206 OK\r\nContent-Range: bytes 0-9/400003\r\nContent-Length: 10",
                  "0123456789"))},
      {"300 with a page", false, always({.status = 300, .body = "choose"})},
      {"204", false, always({.raw = "HTTP/1.1 204 No Content\r\n\r\n"})},
      {"4 MiB of header", false, always(raw(ok + "X: " + std::string(4 << 20, 'x')))},
      {"40,000 header fields", false,
       [](const Request&) {
         Reply reply = plain;
         reply.headers.assign(40'000, {"X", "header"});
         return reply;
       }},
      {"unparsable length", true, always({.body = body, .content_length = "abc"})},
      {"negative length", true, always({.body = body, .content_length = "-5"})},
      {"drip",
       true,
       always({.body = body, .piece = 2000, .piece_delay = 50ms}),
       {"--timeout", "1"}},
      {"stall once",
       true,
       first(2, {.body = body, .stall_after = 3000}, second_half),
       {"--timeout", "0.5"}},
      {"stall always", false, always({.body = body, .stall_after = 0}), {"--timeout", "0.3"}},
      {"odd-case names", true, always(raw(ok + "cOnTeNt-lEnGtH: 400003\r\nACCEPT-ranges: none"))},
      {"gzip all the same", true, always(with({{"Content-Encoding", "gzip"}}))},
  };
}

struct Verdict {
  std::string word;
  std::string why; // what is wrong with it; empty: nothing
};

Verdict meet(const Beast& beast) {
  const TempDir dir;
  const ScriptedServer server([&](const Request& request) { return beast.script(request); });
  const auto run = [&](const ScriptedServer& at, const std::string& retries) {
    std::vector<std::string> command{"get", "--quiet",        "--retry", retries,
                                     "-o",  dir / "file.bin", at.url()};
    command.insert(command.end(), beast.arguments.begin(), beast.arguments.end());
    return Program(command);
  };
  if (beast.before) {
    const ScriptedServer earlier(beast.before);
    if (run(earlier, "0").wait() != 1)
      return {"", "the first run was to fail"};
  }
  auto program = run(server, "2");
  const int status = program.wait(40s);
  const auto said = program.err();
  const auto sentences = [&](std::string_view part) {
    std::size_t count = 0;
    for (auto at = said.find(part); at != said.npos; at = said.find(part, at + 1))
      ++count;
    return count;
  };
  const auto lines = static_cast<std::size_t>(std::ranges::count(said, '\n'));
  const bool plain_words = lines == sentences("ravelin: ") && said.find(beast.says) != said.npos;
  if (status != 0 && status != 1)
    return {status == Program::hung ? "HANGS" : "CRASHES", "status " + std::to_string(status)};
  if (status == 0 && dir.read("file.bin") != body)
    return {"WRONG", "another file"};
  const auto ends = sentences(" -> ");
  const bool expected = (status == 0) == beast.right && ends == (status == 0 ? 0U : 1U);
  return {status == 0 ? "right" : "refused", expected && plain_words ? "" : "said: " + said};
}

TEST(ServerZoo, is_met_with_the_right_file_or_a_refusal) {
  const auto beasts = zoo();
  std::vector<Verdict> verdicts(beasts.size());
  std::atomic<std::size_t> next = 0;
  std::vector<std::thread> keepers;
  for (int i = 0; i < 6; ++i)
    keepers.emplace_back([&] {
      for (std::size_t at; (at = next++) < beasts.size();)
        verdicts[at] = meet(beasts[at]);
    });
  for (auto& keeper : keepers)
    keeper.join();
  std::map<std::string, int> sums;
  for (std::size_t i = 0; i < beasts.size(); ++i) {
    std::printf("  %-36s %s\n", beasts[i].name, verdicts[i].word.c_str());
    ++sums[verdicts[i].word];
    EXPECT_EQ(verdicts[i].why, "") << beasts[i].name;
  }
  std::printf("%zu servers:", beasts.size());
  for (const auto& [word, count] : sums)
    std::printf(" %d %s", count, word.c_str());
  std::printf("\n");
}

} // namespace
} // namespace test
