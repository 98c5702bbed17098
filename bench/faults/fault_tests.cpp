#include "tests/app/program.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <cstdio>
#include <gtest/gtest.h>
#include <random>
#include <regex>

// The program against servers that break the rules, and on disks that fail, forget or are full: the
// right file or a refusal, never a wrong file, a hang or a crash.

namespace test {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string body = pattern(400'003), one = "over one connection";
const std::string ok = "HTTP/1.1 200 OK\r\n", length = "Content-Length: 400003";
const std::string part = "HTTP/1.1 206 OK\r\nContent-Range: bytes 0-400002/400003\r\n";

// The requests that a fault is for.
using Pick = bool (*)(const Request&);
const Pick every = [](const Request&) { return true; };
const Pick later = [](const Request& request) { return request.index > 0; };
const Pick ranged = [](const Request& request) { return request.header("Range").has_value(); };
const Pick half = [](const Request& request) { // the second
  return ranged(request) && std::stol(request.header("Range")->substr(6)) > 200'000;
};

// What the first requests of a kind get; the others are answered in order, or as told.
Script first(int count, Reply faulty, Pick pick = every, Reply otherwise = {}) {
  return [=, left = count](const Request& request) mutable {
    auto reply = pick(request) && left-- > 0 ? faulty : otherwise;
    if (reply.body.empty())
      reply.body = body;
    return reply;
  };
}
Script all(const Reply& faulty, Pick pick = every, const Reply& otherwise = {}) {
  return first(1 << 30, faulty, pick, otherwise);
}
Script raw(const std::string& head, const std::string& content = body) {
  return all({.raw = head + "\r\n\r\n" + content});
}
Reply with(const std::string& name, const std::string& value, int status = 200) {
  return {.status = status, .headers = {{name, value}}};
}
Reply older(Reply reply) { // other content, and less than the half of it
  reply.body = pattern(body.size(), 2), reply.cut_after = 40'000;
  reply.piece = 9000, reply.piece_delay = 60ms;
  return reply;
}
const Reply etag_1 = with("ETag", "\"1\""), etag_2 = with("ETag", "\"2\"");
const Reply at_8 = with("Last-Modified", "Tue, 10 Nov 2026 08:12:53 GMT");
const Reply at_9 = with("Last-Modified", "Tue, 10 Nov 2026 09:12:55 GMT");

enum Fate { right, refused }; // as the exit status tells them
const struct {
  const char* name;
  Fate fate;
  Script script;
  std::string says{}, options{};
} zoo[] = {
    {"ranges not honoured", right, all({.honour_ranges = false}), one},
    {"range of another total", right, all({.content_range = "bytes 0-80000/80001"}, ranged), one},
    {"206 for the whole", refused, raw(part + length), "sent a part"},
    {"ranges too short", right, first(1, {.send_length = false, .cut_after = 5000}, half)},
    {"body too long", right, raw(ok + length, body + "more")},
    {"cut once", right, first(1, {.cut_after = 5000}, later)},
    {"cut, some come", right, all({.piece = 5000, .piece_delay = 60ms, .cut_after = 15'000})},
    {"cut, no progress", refused, all({.cut_after = 0})},
    {"cut, no ranges", refused, all({.accept_ranges = false, .cut_after = 5000})},
    {"503, then fine", right, first(2, with("Retry-After", "1", 503))},
    {"some parts refused, 503", refused, all({.status = 503}, half), "503"},
    {"some parts refused, 403", right, all({.status = 403}, half), one},
    {"416 for the parts", right, all({.status = 416}, ranged), one},
    {"redirect out of the web", refused, all(with("Location", "ftp://127.0.0.1/f", 302))},
    {"two lengths", refused, raw(ok + length + "\r\nContent-Length: 17"), "several"},
    {"unreadable length, cut", refused, raw(ok + length + "x", body.substr(9)), "not a number"},
    {"length too long", refused, all({.content_length = "9000000"})},
    {"unbelievable length", refused, all({.content_length = "9223372036854775807"})},
    {"length differs between parts", refused, all({.body = body + "more"}, later)},
    {"ETag differs between parts", refused, all(etag_2, half, etag_1), "changed"},
    {"date differs between parts", refused, all(at_9, half, at_8), "changed"},
    {"ETag differs between runs", refused, first(6, older(etag_1), every, etag_2), "changed"},
    {"modified between runs", refused, first(6, older({}), every, at_9), "--on-conflict replace"},
    {"40,000 header fields", refused, all({.headers = Headers(40'000, {"X", "header"})}), "header"},
    {"stall always", refused, all({.stall_after = 0}), "timed out", "--timeout 0.3"},
    {"gzip all the same", right, all(with("Content-Encoding", "gzip"))},
};

TEST(ServerZoo, is_met_with_the_right_file_or_a_refusal) {
  in_parallel([&](int number) {
    if (number >= std::ssize(zoo))
      return false;
    const auto& [name, fate, script, says, options] = zoo[number];
    SCOPED_TRACE(name);
    const TempDir dir;
    const ScriptedServer server(script);
    const auto ran = run(
        dir.path(), "ravelin get -q --separate-header --retry 2 --on-change fail $at " + options,
        server.url());
    const bool wrong = ran.status == 0 && dir.read("file.bin") != body;
    EXPECT_TRUE(ran.status == fate && !wrong) << ran.status << ran.err;
    EXPECT_TRUE(std::regex_match(ran.err, std::regex("(ravelin: .*\n)*"))) << ran.err;
    EXPECT_TRUE(ran.err.find(says) != ran.err.npos) << ran.err;
    EXPECT_EQ(ran.err.find(" -> ") != ran.err.npos, fate == refused) << ran.err;
    return true;
  });
  std::printf("%zu servers\n", std::size(zoo));
}

std::ptrdiff_t count(const std::string& text, const std::string& pattern) {
  const std::regex regex(pattern);
  return std::distance(std::sregex_iterator(text.begin(), text.end(), regex), {});
}

struct FaultyDisk : testing::Test {
  struct Outcome : Ran {
    std::string call; // where the fault was; empty: the program made fewer calls
  };
  Outcome get(const fs::path& directory, const std::string& mode, int nth, int seed) const {
    const auto fault =
        mode + " " + std::to_string(nth) + " " + std::to_string(seed) + " " + directory.native();
    const auto ran =
        run(directory, "RAVELIN_FAULT='" + fault + "' " FAULTY_PROGRAM " get --events $at",
            server.url("/file.bin?slow"));
    std::smatch call;
    std::regex_search(ran.err, call, std::regex("fault at (.*)\n"));
    return {ran, call[1]};
  }
  // The same command without a fault, and with a server that is quick.
  void completes(const fs::path& directory) const {
    const auto ran =
        run(directory, "ravelin get -q $at >&2; ls -AI '.hidden*'; cat file.bin", server.url());
    EXPECT_TRUE(ran.out == "file.bin\n" + content) << ran.out.substr(0, 100) << ran.err;
  }
  const std::string content = pattern(60'003);
  // One link but for its query: quick, slow enough for a save of the record in mid-transfer, or
  // with older content.
  const ScriptedServer server{[this](const Request& request) {
    if (request.target.ends_with("?slow"))
      return Reply{.headers = etag_1.headers, .body = content, .piece = 4000, .piece_delay = 60ms};
    if (request.target.ends_with("?older"))
      return Reply{.body = pattern(50'000, 2), .cut_after = 5000};
    return Reply{.headers = etag_1.headers, .body = content};
  }};
  std::atomic<int> faults = 0;
};

TEST_F(FaultyDisk, fails_or_ends_the_program_at_one_call_after_the_other) {
  in_parallel([&](int number) {
    const TempDir dir;
    const bool kills = number % 3 == 2;
    const auto ran = get(dir.path(), kills ? "kill" : "fail", number / 3 + 1, number % 3);
    SCOPED_TRACE(ran.call + ": " + ran.err);
    const bool write = ran.call == "pwrite file.bin" || ran.call == "fdatasync file.bin";
    const bool only_a_mark = count(ran.call, "xattr|\\.hidden") > 0;
    if (kills && !ran.call.empty()) {
      EXPECT_EQ(ran.status, 137);
    } else {
      EXPECT_TRUE(ran.status == 1 ? !only_a_mark : ran.status == 0 && !write) << ran.status;
      EXPECT_TRUE(ran.status == 1 || dir.read("file.bin") == content) << "wrong, but called right";
      EXPECT_EQ(count(ran.out, "event\":\"(error|success)"), 1) << ran.out;
      EXPECT_EQ(count(ran.err, write ? "ravelin: .*file.bin'" : "ravelin: .*file"), ran.status);
    }
    completes(dir.path());
    faults += !ran.call.empty();
    return !ran.call.empty();
  });
  std::printf("%d calls that fail or are the last\n", faults.load());
  EXPECT_GT(faults, 90);
}

TEST_F(FaultyDisk, loses_what_was_not_flushed_when_the_power_fails) {
  const char* const wanted = std::getenv("RAVELIN_SEEDS");
  const int seeds = wanted ? std::stoi(wanted) : 60;
  in_parallel([&](int seed) {
    const TempDir dir;
    auto files = dir / "files";
    fs::create_directory(files);
    std::mt19937 random(static_cast<unsigned>(seed));
    if (random() % 2) // what the link meant before: it does not fit and goes
      run(files, "ravelin get -q --retry 0 $at", server.url("/file.bin?older"));
    std::string story = "seed " + std::to_string(seed), call = "start";
    for (int cuts = 0; cuts < 3 && !call.empty(); ++cuts) {
      const auto ran = get(files, "cut", 1 + static_cast<int>(random() % 110), seed);
      story += "; " + (call = ran.call);
      EXPECT_EQ(ran.status, call.empty() ? 0 : 137) << story << ran.err;
      files += call.empty() ? "" : ".cut";
      faults += !call.empty();
    }
    SCOPED_TRACE(story);
    completes(files);
    if (seed % 250 == 249)
      std::printf("  %d power cuts so far\n", faults.load()), std::fflush(stdout);
    return seed + 1 < seeds;
  });
  std::printf("%d power cuts\n", faults.load());
  EXPECT_GT(faults, seeds / 2);
}

TEST(FullDisk, refuses_the_file_for_which_no_space_is_left_and_spares_the_other) {
  if (run("/", "unshare -m true").status != 0)
    GTEST_SKIP() << "mounting is not permitted here";
  const TempDir dir;
  const ScriptedServer server(
      Reply{.body = pattern(5 << 20), .piece = 1 << 18, .piece_delay = 20ms});
  const auto ran = run(dir.path(),
                       "unshare -m bash -c 'mount -t tmpfs -o size=8m small . && cd $PWD && "
                       "ravelin get -q $at/a $at/b; echo $?; mount -o remount,size=32m $PWD; "
                       "ravelin get -q $at/a $at/b && cmp a b && stat -c %s a; ls'",
                       server.url(""));
  EXPECT_EQ(ran.out, "1\n5242880\na\nb\n");
  EXPECT_EQ(count(ran.err, "could not reserve space for .*No space left.*\n"), 1) << ran.err;
  EXPECT_EQ(count(ran.err, "\n"), 1) << ran.err;
}

// A user of its own, so that nobody else's processes count.
TEST(Starved, ends_with_the_right_file_or_a_sentence_whatever_it_lacks) {
  if (run("/", "setpriv --reuid 61234 --clear-groups true").status != 0)
    GTEST_SKIP() << "changing the user is not permitted here";
  const ScriptedServer server(Reply{.body = body, .piece = 20'000, .piece_delay = 10ms});
  for (const auto& [limit, least] : {std::pair{"nproc", 1}, {"nofile", 4}}) {
    int right = 0;
    for (int n = least; right < 8 && n < 60; ++n) {
      SCOPED_TRACE(limit + std::to_string(n));
      const TempDir dir;
      const auto get = " ./ravelin get -q --retry 0 $at 2>err; echo $?; cat err >&2; ";
      const auto ran =
          run(dir.path(),
              "cp $(which ravelin) . && chown 61234 . && timeout -k1 20 setpriv --reuid "
              "61234 --clear-groups prlimit --" +
                  std::string(limit) + "=" + std::to_string(n) + get + "rm ravelin err",
              server.url());
      right += ran.out == "0\n";
      EXPECT_TRUE(ran.out == "0\n" ? ran.err.empty() && dir.read("file.bin") == body
                                   : ran.out == "1\n" && count(ran.err, "ravelin: .*\n") == 1)
          << ran.out << ran.err;
    }
    std::printf("%s: right with %d numbers\n", limit, right);
    EXPECT_EQ(right, 8);
  }
}

} // namespace
} // namespace test
