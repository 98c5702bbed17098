#include "bramblekit/background.h"
#include "bramblekit/collections.h"
#include "bramblekit/convertible.h"
#include "bramblekit/errors.h"
#include "bramblekit/file_marks.h"
#include "bramblekit/file_naming.h"
#include "bramblekit/main_thread.h"
#include "bramblekit/stop_watch.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>
#include <thread>

namespace ravelin::bramblekit {
namespace {

struct Sample : Convertible<Sample> {
  std::string name;
  std::int64_t count = 0;
  std::optional<std::int64_t> limit;
  bool on = false;
  std::vector<std::int64_t> list;
  void encode(KeyedEncoder& to) const {
    to.put("name", name);
    to.put("limit", limit);
    to.put_list("list", list.size(), [&](auto i, auto& each) { each.put("value", list[i]); });
  }
  void decode(const KeyedDecoder& from) {
    from.get("name", name);
    from.get("count", count);
    from.get("limit", limit);
    from.get("on", on);
    from.get_list("list", [&](auto& each) { each.get("value", list.emplace_back()); });
  }
};

TEST(Convertible, takes_equivalent_json_and_refuses_everything_else) {
  const std::string a = R"({"name":"a","count":)", z = R"(,"on":false,"list":[]})";
  for (const auto& good : {R"( {"count" : 1,"limit":null,"name":"\u00e4","more":[null])" + z,
                           a + R"(-9223372036854775808,"limit":9223372036854775807)" + z})
    EXPECT_NO_THROW(Sample::instance(good + " ")) << good;
  for (const auto& bad :
       {a + "1", a + "1" + z + "}", a + "1" + z + '\0', a + "\"1\"" + z, a + "1.0" + z,
        a + "true" + z, a + "9223372036854775808" + z, a + "-9223372036854775809" + z,
        a + R"(1,"limit":"1")" + z, R"({"name":"a")" + z, R"({"name":null,"count":1)" + z,
        "{\"name\":\"\xff\",\"count\":1" + z, a + R"(1,"on":1,"list":[]})",
        a + R"(1,"on":true,"list":{}})", a + R"(1,"on":true,"list":[1]})", std::string("[]"),
        a + "1,\"more\":" + std::string(200'000, '[') + std::string(200'000, ']') + z})
    EXPECT_THROW(Sample::instance(bad), std::exception) << bad.substr(0, 100);
  Sample sample;
  sample.list = {INT64_MIN};
  EXPECT_EQ(R"({"name":"","list":[{"value":-9223372036854775808}]})", sample.to_json());
  sample.name = "\xff"; // no UTF-8
  EXPECT_THROW(sample.to_json(), std::exception);
}

TEST(Facilities, find_names_and_fields_and_mark_files) {
  const test::TempDir dir;
  const auto at = [&dir](const char* name) { return URL::file(dir / name); };
  dir.write("a (1).gz", "");
  std::filesystem::create_symlink("nowhere", dir / "a (2).gz");
  EXPECT_EQ(at("a (4).gz"), generate_non_conflicting_file_url(at("a.gz"), {at("a (3).gz")}));
  EXPECT_EQ(at(".hidden (1)"), generate_non_conflicting_file_url(at(".hidden"), {}));
  EXPECT_EQ("5", case_insensitive({{"Content", "6"}, {"content-LENGTH", "5"}}, "Content-length"));
  std::vector<int> numbers{1, 2, 3, 2};
  remove(numbers, 2), remove(numbers, 9);
  EXPECT_EQ((std::vector{1, 3, 2}), numbers);
  for (const auto& value : {to_data("true"), to_data("false"), std::optional<platform::Data>()}) {
    ext_attr(at("a (1).gz"))["mark"] = value;
    const auto set = platform::extended_attribute(at("a (1).gz"), "mark");
    EXPECT_TRUE(value ? set == value->text() || errno == ENOTSUP : !set);
  }
  const auto error = error_msg("It failed.", "src/Thing", "go(for:)", 123);
  EXPECT_EQ("It failed. [src/Thing: go(for:), line 123]", to_error(error).text());
}

TEST(BgAsync, runs_tasks_side_by_side_after_their_delay) {
  StopWatch watch;
  Semaphore soon_ran(0), both_ran(0);
  double late = 0, soon = 0;
  bg_async(0.3, [&] { late = watch.elapsed_time(), soon_ran.wait(), both_ran.signal(); });
  bg_async(0, [&] { soon = watch.elapsed_time(), soon_ran.signal(); });
  both_ran.wait();
  EXPECT_TRUE(soon < 0.3 && late >= 0.3) << soon << " " << late;
  watch.reset();
  EXPECT_LT(watch.elapsed_time(), 0.3);
}

TEST(MainSyncDeathTest, brings_results_and_exceptions_back_and_keeps_threads_apart) {
  EXPECT_DEATH(std::thread([] { assert_main_thread("go(for:)"); }).join(), "go.for:.");
  int count = 0; // plain: the main thread is the only lock
  const auto body = [&count] {
    EXPECT_TRUE(main_sync(MainQueue::is_main_thread));
    EXPECT_EQ(7, *main_sync([] { return main_sync([] { return std::make_unique<int>(7); }); }));
    EXPECT_THROW(main_sync([] { throw Exception(); }), Exception);
    EXPECT_THROW(main_sync_in_turn([] { throw 42; }, [] {}), int);
    for (int i = 0; i < 300; ++i) {
      const int before = main_sync([&count] { return ++count; });
      EXPECT_LT(before, main_sync_in_turn([&count] { ++count; }, [&count] { return count; }));
    }
  };
  body();
  std::jthread others([&] {
    for (auto& each : std::array{std::thread(body), std::thread(body)})
      each.join();
    EXPECT_THROW(wait_signal_main([](Semaphore&) { throw 42; }), int);
    bool signalled = false;
    EXPECT_EQ(5, wait_signal_main([&](Semaphore& semaphore) {
                MainQueue::async([&] { signalled = true, semaphore.signal(); });
                return 5;
              }));
    EXPECT_TRUE(signalled);
    MainQueue::stop();
  });
  MainQueue::run();
  EXPECT_EQ(3 * 600, count);
}

} // namespace
} // namespace ravelin::bramblekit
