#include "tests/app/program.h"
#include "tests/harness/patterns.h"
#include "tests/harness/scripted_server.h"

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <random>
#include <sched.h>
#include <string>
#include <sys/mount.h>
#include <sys/xattr.h>
#include <thread>
#include <vector>

// The program on disks that fail, forget or are full.

namespace test {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

const std::string body = pattern(60'003);

// Slow enough for a save of the record in mid-transfer, unless asked to be quick.
Reply answer(const Request& request) {
  if (request.target == "/quick")
    return {.body = body};
  return {.body = body, .piece = 4000, .piece_delay = 60ms};
}

std::size_t count(const std::string& text, const std::string& part) {
  std::size_t found = 0;
  for (auto at = text.find(part); at != text.npos; at = text.find(part, at + 1))
    ++found;
  return found;
}

void in_parallel(const std::function<bool(int)>& goes_on) {
  std::atomic<int> next = 0;
  std::atomic<bool> over = false;
  std::vector<std::thread> threads;
  for (int i = 0; i < 6; ++i)
    threads.emplace_back([&] {
      while (!over)
        if (!goes_on(next++))
          over = true;
    });
  for (auto& thread : threads)
    thread.join();
}

class FaultyDisk : public testing::Test {
protected:
  struct Outcome {
    int status;
    std::string call; // where the fault was; empty: the program made fewer calls
    std::string out, err;
  };

  Outcome get(const fs::path& directory, const std::string& mode, int nth, int seed) const {
    const TempDir log;
    log.write("log", "");
    const auto fault = "RAVELIN_FAULT=" + mode + " " + std::to_string(nth) + " " +
                       std::to_string(seed) + " " + directory.native() + " " +
                       (log / "log").native();
    Program program({"get", "--events", "-o", directory / "file.bin", server.url("/slow")},
                    {.wrapper = {"env", fault}, .program = FAULTY_PROGRAM});
    const int status = program.wait();
    return {status, log.read("log"), program.out(), program.err()};
  }

  // The same command without a fault.
  void completes(const fs::path& directory) const {
    Program program({"get", "-o", directory / "file.bin", server.url("/quick")});
    EXPECT_EQ(program.wait(), 0) << program.err();
    EXPECT_TRUE(read(directory) == body) << program.err();
    EXPECT_FALSE(fs::exists(directory / ".file.lgresume"));
  }
  static std::string read(const fs::path& directory) {
    std::ifstream in(directory / "file.bin", std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
  }

  const ScriptedServer server{Script(answer)};
};

TEST_F(FaultyDisk, fails_one_call_after_the_other) {
  std::atomic<int> failed = 0;
  in_parallel([&](int number) {
    const TempDir dir;
    const auto run = get(dir.path(), "fail", number / 2 + 1, number % 2);
    const auto call = run.call.substr(0, run.call.find('\n'));
    SCOPED_TRACE(call + ", error " + std::to_string(number % 2) + ": " + run.err);
    const bool content = call == "pwrite file.bin" || call == "fdatasync file.bin";
    const bool only_a_mark = call.find("xattr") != call.npos || call.ends_with(".hidden") ||
                             call.ends_with(".hidden.tmp");
    const auto ends = count(run.out, R"("event":"error")") + count(run.out, R"("event":"success")");
    EXPECT_TRUE(run.status == 0 || run.status == 1) << run.status;
    EXPECT_EQ(ends, content ? 0U : 1U) << run.out;
    EXPECT_EQ(run.call.find("left open"), run.call.npos) << run.call;
    EXPECT_EQ(count(run.err, "ravelin: "), run.status == 0 ? 0U : 1U);
    if (run.status == 0) {
      EXPECT_FALSE(content);
      EXPECT_TRUE(read(dir.path()) == body) << "incomplete or wrong, but called right";
      EXPECT_FALSE(fs::exists(dir / ".file.lgresume"));
    } else {
      EXPECT_FALSE(only_a_mark);
      EXPECT_NE(run.err.find(content ? "file.bin'" : "file"), run.err.npos);
    }
    completes(dir.path());
    failed += !call.empty();
    return !call.empty();
  });
  std::printf("%d failing calls\n", failed.load());
  EXPECT_GT(failed, 60);
}

TEST_F(FaultyDisk, kills_the_program_at_one_call_after_the_other) {
  std::atomic<int> killed = 0;
  in_parallel([&](int number) {
    const TempDir dir;
    const auto run = get(dir.path(), "kill", number + 1, 0);
    SCOPED_TRACE(run.call);
    EXPECT_EQ(run.status, run.call.empty() ? 0 : 128 + SIGKILL);
    completes(dir.path());
    killed += !run.call.empty();
    return !run.call.empty();
  });
  std::printf("%d kills\n", killed.load());
}

// An unfinished download of what the link meant before: it does not fit and goes.
void put_older_download(const TempDir& dir) {
  const auto file = dir.write("file.bin", pattern(50'000, 2));
  setxattr(file.c_str(), "user.lg_ignore", "true", 4, 0);
  dir.write(".file.lgresume",
            R"({"server_side_date":"","content_length":50000,"is_splitted":true,"parts":[)"
            R"({"begin_pos":0,"total_bytes_expected":50000,"curr_bytes":50000}]})");
}

TEST_F(FaultyDisk, loses_what_was_not_flushed_when_the_power_fails) {
  const auto* const wished = std::getenv("RAVELIN_SEEDS");
  const int seeds = wished ? std::atoi(wished) : 60;
  std::atomic<int> cuts = 0;
  in_parallel([&](int seed) {
    SCOPED_TRACE("seed " + std::to_string(seed));
    const TempDir dir;
    std::mt19937 random(static_cast<unsigned>(seed));
    if (random() % 2)
      put_older_download(dir);
    const TempDir place;
    auto directory = place / "files";
    fs::rename(dir.path(), directory);
    std::string story;
    for (int again = 0; again < 3; ++again) {
      const auto nth = 1 + static_cast<int>(random() % 110);
      const auto run = get(directory, "cut", nth, seed);
      story += run.call;
      EXPECT_EQ(run.status, run.call.empty() ? 0 : 128 + SIGKILL) << run.err;
      if (run.call.empty())
        break;
      directory += ".cut";
      ++cuts;
    }
    SCOPED_TRACE(story);
    completes(directory);
    return seed + 1 < seeds;
  });
  std::printf("%d power cuts\n", cuts.load());
}

// Mounts for this process alone.
class SmallDisk {
public:
  explicit SmallDisk(const fs::path& at) : at_(at) {
    mounted_ = unshare(CLONE_NEWNS) == 0 &&
               mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0 &&
               mount("small", at_.c_str(), "tmpfs", 0, "size=1m") == 0;
  }
  ~SmallDisk() {
    if (mounted_)
      umount(at_.c_str());
  }
  SmallDisk(const SmallDisk&) = delete;
  SmallDisk& operator=(const SmallDisk&) = delete;

  bool mounted() const { return mounted_; }
  void grow() { EXPECT_EQ(mount("small", at_.c_str(), "tmpfs", MS_REMOUNT, "size=8m"), 0); }

private:
  fs::path at_;
  bool mounted_ = false;
};

TEST(FullDisk, is_said_at_the_start_or_ends_the_program_with_a_sentence) {
  const auto large = pattern(3 << 20);
  const struct {
    const char* name;
    Reply reply;
    std::string says;
  } cases[] = {{"length known", {.body = large}, "could not reserve room for"},
               {"length known, one piece", {.body = large, .accept_ranges = false}, "reserve room"},
               {"length unknown", {.body = large, .send_length = false}, "could not write to"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const TempDir dir;
    SmallDisk disk(dir.path());
    if (!disk.mounted())
      GTEST_SKIP() << "mounting is not permitted here";
    const ScriptedServer server(c.reply);
    const auto get = [&] { return Program({"get", "-q", "-o", dir / "file.bin", server.url()}); };
    auto full = get();
    EXPECT_EQ(full.wait(), 1);
    EXPECT_EQ(count(full.err(), "ravelin: "), 1U) << full.err();
    EXPECT_NE(full.err().find(c.says), std::string::npos) << full.err();
    EXPECT_NE(full.err().find("file.bin'"), std::string::npos) << full.err();
    EXPECT_NE(full.err().find("No space left"), std::string::npos) << full.err();
    disk.grow();
    auto roomy = get();
    EXPECT_EQ(roomy.wait(), 0) << roomy.err();
    EXPECT_TRUE(dir.read("file.bin") == large);
  }
}

TEST(FullDisk, is_said_of_the_file_that_finds_no_room_beside_another) {
  const TempDir dir;
  SmallDisk disk(dir.path());
  if (!disk.mounted())
    GTEST_SKIP() << "mounting is not permitted here";
  disk.grow();
  const ScriptedServer server(Reply{
      .body = pattern(5 << 20), .piece = 1 << 18, .piece_delay = std::chrono::milliseconds(20)});
  Program both({"get", "-q", "-d", dir.path(), server.url("/a"), server.url("/b")});
  EXPECT_EQ(both.wait(), 1);
  EXPECT_EQ(count(both.err(), "could not reserve room for"), 1U) << both.err();
  EXPECT_EQ(count(both.err(), "could not write to"), 0U) << both.err();
}

} // namespace
} // namespace test
