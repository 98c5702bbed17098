#include "platform/files/extended_attributes.h"
#include "platform/files/file_handle.h"
#include "platform/files/file_manager.h"
#include "platform/files/hidden_list.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/serial_queue.h"
#include "ravelin/main_queue.h"
#include "tests/harness/faulty_files.h"
#include "tests/harness/temp_dir.h"

#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <gtest/gtest.h>
#include <latch>
#include <poll.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

namespace ravelin::platform {
namespace {

namespace fs = std::filesystem;

constexpr auto replace = [](const URL& url) { write_text_atomically(url, "new text"); };
void edit(const URL& url) {
  auto file = FileHandle::for_writing_to(url);
  file.reserve(1000); // must not show
  file.cut(2);
  file.write(2, Data::copy_of("abcdef"));
  file.write(9, Data::copy_of("z"));
  file.cut(100);
  file.synchronize();
}

/// Runs `work` and tells the code of its error, whose text must name the file.
int code_of(void (*work)(const URL&), const URL& url) {
  try {
    return work(url), 0;
  } catch (const std::system_error& e) {
    EXPECT_NE(std::string::npos, std::string(e.what()).find("'" + url.path().native() + "'"));
    return e.code().value();
  }
}

TEST(FileCalls, may_fail_one_by_one_and_leave_whole_files_and_errors_that_name_them) {
  const std::string old = "old text!", all("olabcdef\0z", 10);
  const std::pair<void (*)(const URL&), std::vector<std::string>> cases[] = {
      {replace, {old, old, old, old, "new text!", "new text"}},
      {edit, {all, old, "ol!", "olabcd!", "olabcdef!", all + "!", all}}};
  for (const auto& [work, outcomes] : cases) // what is left after each call that fails
    for (std::size_t nth = 1; nth <= outcomes.size(); ++nth) {
      const test::TempDir dir;
      const auto url = URL::file(dir.write("f", "old text"));
      auto left = nth; // calls until the disk is full
      bool interrupted = false;
      test::FaultyFiles disk([&](std::string_view call, const std::string&) {
        if (call == "open" || call == "unlink")
          return 0;
        if (call != "rename" && call != "ftruncate" && (interrupted = !interrupted))
          return EINTR;
        return --left == 0 ? ENOSPC : 0;
      });
      disk.max_write = 4;
      const auto sign = code_of(work, url) == ENOSPC ? "!" : "";
      EXPECT_EQ(outcomes[nth - 1], dir.read("f") + sign) << nth;
      EXPECT_FALSE(fs::exists(dir / "f.tmp"));
    }
}

TEST(FileManager, is_misled_by_no_link_or_pipe_that_somebody_planted) {
  const test::TempDir dir;
  const auto f = URL::file(dir.write("f", "old")), pipe = URL::file(dir / "pipe");
  ASSERT_EQ(0, mkfifo(pipe.path().c_str(), 0600));
  for (const auto* link : {"f.tmp", ".hidden"})
    fs::create_symlink(dir.write("victim", "untouched"), dir / link);
  replace(f);
  set_hidden(f, true);
  EXPECT_TRUE(fs::is_symlink(dir / ".hidden") && dir.read("victim") == "untouched");
  const auto read = [](const URL& url) { read_text(url, 7); };
  EXPECT_EQ(EFBIG, code_of(read, f));
  EXPECT_EQ(EINVAL, code_of(read, pipe));
  EXPECT_EQ(ENXIO, code_of(edit, pipe));
  EXPECT_EQ(EPERM,
            code_of([](auto& url) { FileManager::default_manager().remove_item(url); }, pipe));
}

TEST(HiddenList, changes_by_one_line_and_goes_when_empty_and_ours) {
  // The file's name, the list made by others, the list with the file hidden, and shown again.
  const std::array<std::string, 4> cases[] = {
      {"a b\xff", "none", "a b\xff\n", "none"},
      {"a", "z\n\nb", "z\n\nb\na\n", "z\n\nb\n"},
      {"a", "z\na\nb", "z\na\nb", "z\nb"},
      {"a", "z\r\n a\nab\n", "z\r\n a\nab\na\n", "z\r\n a\nab\n"},
      {"a", "a", "a", ""},
      {"two\nlines", "two\n", "two\n", "two\n"}};
  for (const auto& [name, before, hidden, shown] : cases) {
    const test::TempDir dir;
    const auto url = URL::file(dir.write(name, ""));
    before == "none" ? void() : void(dir.write(".hidden", before));
    for (const bool hide : {true, false}) {
      set_hidden(url, hide);
      EXPECT_EQ(hide ? hidden : shown, fs::exists(dir / ".hidden") ? dir.read(".hidden") : "none");
    }
  }
  const test::TempDir dir;
  const auto url = URL::file(dir.write("a", ""));
  const int held_by_another = open(dir.path().c_str(), O_RDONLY);
  flock(held_by_another, LOCK_EX);
  EXPECT_FALSE(set_hidden(url, true)) << "the main thread does not wait";
  std::jthread([&] { EXPECT_TRUE(set_hidden(url, true)) << "gives up"; }).join();
  close(held_by_another);
  EXPECT_FALSE(fs::exists(dir / ".hidden"));
}

TEST(URL, is_a_value_with_a_path_and_a_text) {
  EXPECT_EQ("/a b/c%zz\xe4", URL("file:///a%20b%2Fc%zz%e4").path());
  EXPECT_EQ("file:///a%20b%23%3F%25/%C3%A4%FF%0A.~", URL::file("/a b#?%/\xc3\xa4\xff\n.~").text());
  EXPECT_EQ(fs::current_path() / "m.mkv", URL(URL::file("m.mkv").text()).path());
  EXPECT_TRUE(URL("a") != URL::file("a") && URL("/a").path().empty());
}

bool is_readable() {
  pollfd watched{MainQueue::descriptor(), POLLIN, 0};
  return poll(&watched, 1, 0) == 1;
}

TEST(MainQueue, runs_work_in_order_and_is_readable_exactly_while_there_is_some) {
  MainQueue::async([] { MainQueue::async([] { throw 7; }); });
  MainQueue::async([] { EXPECT_TRUE(is_readable()) << "a loop in here would sleep"; });
  EXPECT_EQ(2U, MainQueue::drain());
  MainQueue::async([] { EXPECT_EQ(1U, MainQueue::drain()); });
  MainQueue::async([] { EXPECT_FALSE(is_readable()); });
  EXPECT_THROW(MainQueue::drain(), int);
  EXPECT_EQ(1U, MainQueue::drain()) << "that one drained the other";
  MainQueue::async([] { MainQueue::stop(), throw 7; });
  EXPECT_THROW(MainQueue::run(), int);
  EXPECT_FALSE(is_readable()) << "there is nothing to run";
  MainQueue::run(); // still stopped
  std::vector<int> order;
  const std::jthread other([&order] {
    for (int i = 0; i < 100; ++i)
      MainQueue::async([&order, i] { order.push_back(MainQueue::is_main_thread() ? i : -1); });
    MainQueue::async([] {
      MainQueue::async(MainQueue::stop);
      MainQueue::run(); // stops alone
      MainQueue::async([] {});
    });
    std::string state;
    for (int i = 0; i < 99'999 && state != "S"; ++i)
      std::ifstream("/proc/self/stat") >> state >> state >> state; // of the main thread
    EXPECT_EQ("S", state) << "does not sleep";
    MainQueue::stop();
  });
  MainQueue::run();
  EXPECT_TRUE(order.size() == 100 && order[0] == 0 && std::ranges::is_sorted(order));
  EXPECT_FALSE(is_readable());
  MainQueue::stop();
  EXPECT_FALSE(is_readable()) << "nobody waits for that";
  MainQueue::run(); // returns at once
}

TEST(SerialQueue, runs_jobs_in_order_beside_other_queues_on_threads_that_go_when_idle) {
  DispatchGroup group;
  std::latch all_at_work(30);
  std::vector<std::vector<int>> order(30); // plain data: queue and group alone order its uses
  for (auto& mine : order) {
    SerialQueue queue("test"); // its jobs outlive it
    group.enter();
    queue.async([&] { all_at_work.arrive_and_wait(); }); // for ever, if one had to wait
    for (int i = 0; i < 20; ++i)
      queue.async([&, i, again = queue]() mutable {
        mine.push_back(i);
        i == 19 ? again.async([&] { group.leave(); }) : void();
      });
  }
  group.wait();
  for (const auto& mine : order)
    EXPECT_TRUE(mine.size() == 20 && std::ranges::is_sorted(mine));
  for (int i = 0; i < 375 && background_thread_count() > 0; ++i)
    usleep(20'000); // nothing tells of a thread's end
  EXPECT_EQ(0U, background_thread_count());
}

} // namespace
} // namespace ravelin::platform
