#include "bramblekit/background.h"
#include "bramblekit/collections.h"
#include "bramblekit/errors.h"
#include "bramblekit/file_marks.h"
#include "bramblekit/file_naming.h"
#include "bramblekit/stop_watch.h"
#include "tests/harness/temp_dir.h"

#include <barrier>
#include <future>
#include <gtest/gtest.h>
#include <thread>

namespace ravelin::bramblekit {
namespace {

TEST(FileNaming, finds_another_name_that_is_free) {
  const test::TempDir dir;
  dir.write("taken (1).mkv", "");
  const auto at = [&dir](const char* name) { return URL::file(dir / name); };
  const std::tuple<const char*, std::vector<URL>, const char*> cases[] = {
      {"movie.mkv", {at("movie (1).mkv"), at("movie (2).mkv")}, "movie (3).mkv"},
      {"taken.mkv", {at("taken (2).mkv")}, "taken (3).mkv"},
      {"plain", {}, "plain (1)"},
      {".hidden", {}, ".hidden (1)"},
      {"two.tar.gz", {}, "two.tar (1).gz"}};
  for (const auto& [name, not_allowed, other] : cases)
    EXPECT_EQ(at(other), generate_non_conflicting_file_url(at(name), not_allowed)) << name;
}

TEST(Collections, look_up_in_any_case_and_remove_one_element) {
  const ravelin::platform::HeaderFields fields{{"content-LENGTH", "5"}, {"Content-Length-X", "6"}};
  for (const auto* name : {"Content-Length", "content-length", "CONTENT-LENGTH"})
    EXPECT_EQ("5", case_insensitive(fields, name)) << name;
  EXPECT_EQ(std::nullopt, case_insensitive(fields, "Content-Lengt"));
  std::vector<int> numbers{1, 2, 3};
  for (const int each : {2, 9, 1, 3, 3})
    remove(numbers, each);
  EXPECT_TRUE(numbers.empty());
}

TEST(ExtAttr, sets_and_removes_the_mark_of_a_file) {
  const test::TempDir dir;
  const auto url = URL::file(dir.write("a", ""));
  ext_attr(url)["mark"] = to_data("true");
  if (!ravelin::platform::extended_attribute(url, "mark") && errno == ENOTSUP)
    GTEST_SKIP() << "this file system has no attributes of users";
  EXPECT_EQ("true", ravelin::platform::extended_attribute(url, "mark"));
  for (int i = 0; i < 2; ++i)
    ext_attr(url)["mark"] = std::nullopt;
  EXPECT_EQ(std::nullopt, ravelin::platform::extended_attribute(url, "mark"));
}

TEST(TextError, says_what_failed_and_where) {
  const auto error = error_msg("It failed.", "src/Thing", "go(for:)", 123);
  EXPECT_EQ("It failed.", error.message());
  for (const auto* part : {"It failed.", "src/Thing", "go(for:)", "123"})
    EXPECT_NE(std::string::npos, to_error(error).text().find(part)) << part;
}

TEST(BgAsync, runs_tasks_side_by_side_after_the_delay_that_a_watch_shows) {
  StopWatch watch;
  // Shared: who comes out of it last still looks at it.
  const auto all_are_there = std::make_shared<std::barrier<>>(3);
  double times[2] = {};
  for (auto& time : times)
    bg_async(&time == times ? 0.3 : 0.0, [&, all_are_there] {
      time = watch.elapsed_time();
      all_are_there->arrive_and_wait();
    });
  all_are_there->arrive_and_wait();
  EXPECT_GE(times[0], 0.3);
  EXPECT_LT(times[1], 0.3);
  watch.reset();
  EXPECT_LT(watch.elapsed_time(), 0.3);
}

TEST(OwnWork, is_done_by_who_waits_and_else_by_another_thread) {
  using Thread = std::thread::id;
  std::promise<Thread> first, second, left;
  const auto tell = [](std::promise<Thread>& worker) {
    return [&worker] { worker.set_value(std::this_thread::get_id()); };
  };
  {
    OwnWork work, never_done;
    work.take(tell(first));
    work.take(tell(second));
    never_done.take(tell(left));
    work.work();
  }
  EXPECT_EQ(std::this_thread::get_id(), first.get_future().get());
  EXPECT_NE(std::this_thread::get_id(), second.get_future().get());
  EXPECT_NE(std::this_thread::get_id(), left.get_future().get());
}

} // namespace
} // namespace ravelin::bramblekit
