#include "platform/threads/thread_pool.h"
#include "src/FileProcessor.h"
#include "tests/harness/child_process.h"
#include "tests/src/transfer_fixture.h"

#include <atomic>
#include <cmath>
#include <csignal>
#include <cstdlib>

// Downloads that nothing but the server, the disk or the end of the process disturbs.

namespace test {
namespace {

const std::string anew = "connecting files_are_created started downloading success";
const std::string continued = "connecting started downloading success";

using RavelinOperationTest = TransferTest;
using RavelinOperationDeathTest = TransferTest;

TEST_F(RavelinOperationTest, fetches_five_ranges_where_it_can_and_else_the_whole) {
  const auto body = pattern(1'000'003);
  const std::string five = "all 0-199999 200000-399999 400000-599999 600000-799999 800000-1000002";
  const auto known = std::optional<std::int64_t>(1'000'003);
  const std::optional<std::int64_t> none;
  const struct {
    const char* name;
    Reply reply;
    bool split_allowed;
    std::string asked;
    std::optional<std::int64_t> length;
  } cases[] = {
      {"ranges", {.body = body}, true, five, known},
      {"not to be split", {.body = body}, false, "all all", known},
      {"no ranges", {.body = body, .accept_ranges = false}, true, "all all", known},
      {"no length", {.body = body, .send_length = false}, true, "all all", none},
      {"chunked", {.body = body, .chunked = true}, true, "all all", none},
      {"no number", {.body = body, .content_length = "much"}, true, "all all all all", none},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    serve(c.reply);
    const auto& run = download({.name = c.name, .split = c.split_allowed});
    EXPECT_EQ(run.story(), anew) << run.error_text();
    EXPECT_EQ(asked(), c.asked);
    EXPECT_EQ(run.last<Status::started>()->content_length, c.length);
    const auto made = run.last<Status::files_are_created>();
    EXPECT_EQ(made->main_file_url, file(c.name));
    EXPECT_EQ(made->resume_file_url, file(record_of(c.name)));
    EXPECT_EQ(run.last<Status::downloading>()->progress,
              Progress(c.length ? std::optional(1.0F) : std::nullopt, 1'000'003,
                       c.length.has_value(), c.length));
    EXPECT_TRUE(run.opr->state().holds<State::successful>());
    EXPECT_TRUE(run.content() == body);
  }
}

TEST_F(RavelinOperationTest, splits_the_smallest_content_and_refuses_none) {
  serve(Reply{.body = "abc"});
  EXPECT_EQ(download({}).content(), "abc");
  EXPECT_EQ(asked(), "all 0-2");
  serve(Reply{});
  const auto& run = download({.name = "empty"});
  EXPECT_EQ(run.story(), "connecting error");
  EXPECT_EQ(run.error_text(), "File content has zero length.");
  EXPECT_FALSE(fs::exists(dir / "empty"));
}

TEST_F(RavelinOperationTest, asks_only_for_what_the_record_lacks) {
  const auto body = pattern(500);
  const struct {
    std::vector<std::int64_t> bytes;
    std::string asked;
    std::string story;
  } cases[] = {{{0, 0, 0, 0, 0}, "all 0-99 100-199 200-299 300-399 400-499", continued},
               {{99, 0, 40, 0, 1}, "all 99-99 100-199 240-299 300-399 401-499", continued},
               {{100, 40, 100, 100, 100}, "all 140-199", continued},
               {{100, 100, 100, 100, 100}, "all", "connecting success"}};
  for (const auto& c : cases) {
    serve(Reply{.body = body});
    put_partial(body, c.bytes);
    const auto& run = download({});
    EXPECT_EQ(run.story(), c.story);
    EXPECT_EQ(asked(), c.asked);
    EXPECT_EQ(run.content(), body) << c.asked;
  }
}

TEST_F(RavelinOperationTest, continues_after_a_cancel_with_every_byte_that_came) {
  const auto body = pattern(5000);
  serve(Reply{.body = body, .stall_after = 300});
  auto& first = start_until(1500, {});
  first.opr->cancel();
  const Progress expected(0.3F, 1500, false, 5000);
  EXPECT_EQ(finish(first).last<Status::cancelled>()->progress, expected);
  EXPECT_EQ(RavelinOperation::get_progress(file()), expected);
  EXPECT_EQ(marks_of(file()), 2);
  serve(Reply{.body = body});
  const auto& second = download({.opr = first.opr});
  EXPECT_EQ(second.story(), continued);
  EXPECT_EQ(asked(), "all 300-999 1300-1999 2300-2999 3300-3999 4300-4999");
  EXPECT_TRUE(second.content() == body);
}

TEST_F(RavelinOperationTest, names_the_kind_of_its_failure) {
  const auto body = pattern(500);
  const Reply silent{.header_delay = never};
  const Reply empty{.close_at_once = true};
  const Reply cut{.body = body, .cut_after = 50};
  const Reply stalled{.body = body, .stall_after = 50};
  const Reply garbage{.raw = "nonsense\r\n\r\n"};
  const std::string created = "connecting files_are_created ";
  const std::string half = created + "started downloading ";
  const struct {
    Reply reply;
    bool in_header;
    std::string story;
  } cases[] = {
      {silent, true, "connecting timeout"},        {silent, false, created + "timeout"},
      {stalled, false, half + "timeout"},          {empty, true, "connecting connection_lost"},
      {empty, false, created + "connection_lost"}, {cut, false, half + "connection_lost"},
      {garbage, true, "connecting error"},         {garbage, false, created + "error"}};
  set_idle_timeout(1s);
  for (const auto& c : cases) {
    SCOPED_TRACE(c.story);
    serve([&](const Request& r) {
      return c.in_header || r.index > 0 ? c.reply : Reply{.body = body};
    });
    const auto& run = download({});
    EXPECT_EQ(run.story(), c.story);
    EXPECT_TRUE(run.opr->state().holds<State::failed>());
    EXPECT_FALSE(run.error_text().empty());
    RavelinOperation::clear_files(file());
  }
  const auto refused = download({.link = "http://127.0.0.1:1/"}).last<Status::error>();
  EXPECT_EQ(refused->custom_error.get_if<CustomError::other>()->error.code(),
            URLError::cannot_connect_to_host);
}

TEST_F(RavelinOperationTest, lets_the_other_parts_end_when_one_fails) {
  const auto body = pattern(5000);
  serve([&](const Request& request) {
    Reply reply{.body = body, .piece = 100, .piece_delay = 5ms}; // so that they outlast it
    if (request.header("Range") == "bytes=2000-2999")
      reply.cut_after = 5;
    return reply;
  });
  const auto& run = download({});
  EXPECT_EQ(run.story(), "connecting files_are_created started downloading connection_lost");
  EXPECT_EQ(run.received(), 4005);
  serve(Reply{.body = body});
  EXPECT_TRUE(download({}).content() == body);
  EXPECT_EQ(asked(), "all 2005-2999");
}

// Odd, and kept: the save that failed stops the parts, which end as cancelled and not as failed.
TEST_F(RavelinOperationTest, ends_as_the_last_save_does_when_an_earlier_one_fails) {
  serve(Reply{.body = pattern(50'000), .piece = 100, .piece_delay = 10ms});
  for (const std::string name : {"saved", "failing"}) {
    std::atomic<int> saves = 0;
    const HookedCalls calls([&](std::string_view call, const std::string& path) {
      const int number = call == "rename" && path.ends_with(".lgresume") ? saves++ : 0;
      return number == 1 || (number > 1 && name == "failing");
    });
    const auto& run = download({.name = name});
    const bool failed = run.error_text().starts_with("Couldn't update resume file: \n");
    EXPECT_EQ(failed, name == "failing");
    EXPECT_EQ(run.story().ends_with("success"), name == "saved");
    EXPECT_EQ(RavelinOperation::get_progress(file(name)).received_bytes,
              failed ? 0 : run.received());
    EXPECT_LT(run.received(), 50'000);
    EXPECT_EQ(marks_of(file(name)), 2);
  }
}

TEST_F(RavelinOperationTest, tells_the_progress_of_a_destination_from_its_record) {
  const std::string part = R"({"begin_pos":0,"total_bytes_expected":9,"curr_bytes":)";
  const struct {
    std::string length;
    std::string parts;
    Progress expected;
  } cases[] = {{R"("content_length":8,)", part + "1}," + part + "2}", {0.375F, 3, false, 8}},
               {R"("content_length":8,)", "", {0.0F, 0, false, 8}},
               {"", part + "4}", {std::nullopt, 4, false}},
               {R"("content_length":0,)", part + "4}", {INFINITY, 4, false, 0}}};
  EXPECT_EQ(RavelinOperation::get_progress(file()), Progress(0.0F, 0, false));
  for (const auto& c : cases) {
    dir.write(record_of(), R"({"server_side_date":"",)" + c.length +
                               R"("is_splitted":true,"parts":[)" + c.parts + "]}");
    EXPECT_EQ(RavelinOperation::get_progress(file()), c.expected) << c.length << c.parts;
  }
}

TEST_F(RavelinOperationTest, has_two_settings) {
  for (const auto& [set, stored] : {std::pair{7, 7}, {1, 1}, {0, 1}, {-3, 1}}) {
    RavelinOperation::set_max_simultaneous_download_count(set);
    EXPECT_EQ(RavelinOperation::max_simultaneous_download_count(), stored);
  }
  RavelinOperation opr;
  EXPECT_EQ(opr.progress_snap_interval(), 0.1F);
  opr.set_progress_snap_interval(0.5F);
  EXPECT_EQ(opr.progress_snap_interval(), 0.5F);
}

TEST_F(RavelinOperationTest, can_be_started_again_from_its_final_callback) {
  serve([](const Request& r) { return Reply{.body = "text", .close_at_once = r.index == 0}; });
  auto& first = start({});
  Download* second = nullptr;
  first.then = [&](const std::string& event) {
    if (event == "connection_lost")
      second = &start({.opr = first.opr});
  };
  finish(first);
  EXPECT_EQ(finish(*second).story(), anew);
}

TEST_F(RavelinOperationTest, goes_on_when_the_application_drops_it) {
  serve(Reply{.body = pattern(500)});
  for (const std::string moment : {"connecting", "started", "downloading", "success"}) {
    auto& run = start({.name = moment});
    const std::weak_ptr<RavelinOperation> weak = run.opr;
    run.then = [&](const std::string& event) {
      if (event == moment)
        run.opr.reset();
    };
    EXPECT_EQ(finish(run).story(), anew) << moment;
    pump_until([&] { return weak.expired(); });
  }
}

TEST_F(RavelinOperationTest, refuses_a_second_run_while_one_is_under_way) {
  serve(Reply{.body = pattern(500), .stall_after = 10});
  auto& run = start_until(50, {});
  const auto& refused = download({.name = "other", .opr = run.opr});
  EXPECT_EQ(refused.story(), "error");
  EXPECT_EQ(refused.error_text(), "An operation is already in-progress for the destination file.");
  EXPECT_TRUE(run.opr->is_busy() && run.opr->state().holds<State::downloading>());
  run.opr->cancel();
  EXPECT_TRUE(finish(run).story().ends_with("downloading cancelling cancelled"));
}

TEST_F(RavelinOperationTest, works_from_any_thread_and_without_a_callback) {
  serve(Reply{.body = pattern(500)});
  RavelinOperation unshared;
  EXPECT_THROW(unshared.resume(URL(server->url()), file(), true, OnConflict::resume, nullptr),
               std::logic_error);
  const auto opr = std::make_shared<RavelinOperation>();
  in_background([&] {
    opr->resume(URL(server->url()), file(), true, OnConflict::resume, nullptr);
    EXPECT_TRUE(opr->is_busy());
  });
  pump_until([&] { return !opr->is_busy(); });
  EXPECT_TRUE(opr->state().holds<State::successful>());
  EXPECT_EQ(dir.read("file.bin"), pattern(500));
}

TEST_F(RavelinOperationDeathTest, ends_the_process) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto throw_in_callback = [&] {
    start({}).then = [](const std::string&) { throw std::runtime_error("from a callback"); };
    pump_until([] { return false; });
  };
  EXPECT_DEATH(throw_in_callback(), "from a callback");
  const auto continue_without_parts = [&] {
    serve(Reply{.body = pattern(500)});
    dir.write("file.bin", "");
    dir.write(record_of(),
              R"({"server_side_date":"","content_length":500,"is_splitted":true,"parts":[]})");
    download({});
  };
  EXPECT_DEATH(continue_without_parts(), "the resume record has no part 0");
}

// The child's part: downloads until the record counts more than before, and dies there and then.
[[noreturn]] void die_in_mid_transfer(const char* link, const URL& dest) {
  const auto before = RavelinOperation::get_progress(dest).received_bytes;
  const auto opr = std::make_shared<RavelinOperation>();
  opr->resume(URL(link), dest, true, OnConflict::resume, [=](const Status&) {
    if (RavelinOperation::get_progress(dest).received_bytes > before)
      raise(SIGKILL);
  });
  for (;;)
    pump_until([] { return false; });
}

TEST_F(RavelinOperationTest, may_be_killed_in_mid_transfer_and_continues) {
  if (const char* const link = std::getenv("RAVELIN_TEST_LINK"))
    die_in_mid_transfer(link, URL::file(std::getenv("RAVELIN_TEST_DESTINATION")));
  const auto body = pattern(200'000);
  serve(Reply{.body = body, .piece = 200, .piece_delay = 10ms}); // two seconds, were it left alone
  const std::vector<std::string> command{
      "env", "RAVELIN_TEST_LINK=" + server->url(),
      "RAVELIN_TEST_DESTINATION=" + file().path().native(), fs::read_symlink("/proc/self/exe"),
      "--gtest_filter=*.may_be_killed_in_mid_transfer_and_continues"};
  for (std::int64_t received = 0, kills = 0; kills < 3; ++kills) {
    ASSERT_EQ(ChildProcess(command).wait(), 128 + SIGKILL);
    const auto record = FileProcessor::read_resume_data(file());
    EXPECT_GT(record->received_bytes(), received);
    received = record->received_bytes();
    EXPECT_EQ(marks_of(file()), 2);
    for (const auto& part : record->parts) {
      const auto begin = static_cast<std::size_t>(part->begin_pos);
      const auto size = static_cast<std::size_t>(part->curr_bytes);
      EXPECT_TRUE(dir.read("file.bin").substr(begin, size) == body.substr(begin, size));
    }
  }
  serve(Reply{.body = body});
  EXPECT_EQ(download({}).story(), continued);
  EXPECT_TRUE(dir.read("file.bin") == body);
}

TEST_F(RavelinOperationTest, leaves_no_thread_of_many_downloads) {
  const auto background = [] {
    return static_cast<std::ptrdiff_t>(ravelin::platform::background_thread_count());
  };
  const auto others = [&] {
    return std::distance(fs::directory_iterator("/proc/self/task"), fs::directory_iterator()) -
           background();
  };
  serve([](const Request& request) { return Reply{.body = request.target}; });
  const auto before = others();
  std::vector<Download*> runs;
  for (int i = 0; i < 200; ++i)
    runs.push_back(&start({.name = std::to_string(i), .split = i % 2 == 0}));
  for (auto* const run : runs)
    EXPECT_EQ(finish(*run).content(), "/" + run->dest.path().filename().native());
  EXPECT_GT(background(), 0);
  pump_until([&] { return background() == 0 && others() == before; });
}

} // namespace
} // namespace test
