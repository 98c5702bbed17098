#include "tests/src/transfer_fixture.h"

#include <regex>

// Downloads that nothing but the server, the disk or the application disturbs.

namespace test {
namespace {

using DownloadTest = TransferTest;
using DownloadDeathTest = TransferTest;

const std::string all_ranges = "0-99 100-199 200-299 300-399 400-499 all";

TEST_F(DownloadTest, fetches_five_ranges_where_it_can_and_else_the_whole) {
  const std::tuple<bool, Reply, std::string, std::optional<std::int64_t>> cases[] = {
      {true, {.body = body}, all_ranges, 500},
      {false, {.body = body}, "all all", 500},
      {true, {.body = body, .accept_ranges = false}, "all all", 500},
      {true, {.body = body, .send_length = false}, "all all", std::nullopt},
      {true,
       {.headers = {{"accept-ranges", "Bytes"}}, .body = body, .accept_ranges = false},
       "all all",
       500},
      {true, {.body = "abc"}, "0-2 all", 3}};
  for (const auto& [split, reply, expected, length] : cases) {
    SCOPED_TRACE(expected);
    RavelinOperation::clear_files(file());
    serve(reply);
    const auto& run = download({.split = split});
    EXPECT_EQ(run.story, "cfsd+") << run.error_text;
    EXPECT_EQ(asked(), expected);
    EXPECT_EQ(run.last<Status::started>()->content_length, length);
    EXPECT_EQ(*run.last<Status::files_are_created>(),
              (Status::files_are_created{file(), URL::file(record_of(file()))}));
    EXPECT_EQ(run.last<Status::downloading>()->progress,
              Progress(length ? std::optional(1.0F) : std::nullopt, length.value_or(500),
                       length.has_value(), length));
    EXPECT_TRUE(run.opr->state().holds<State::successful>());
    EXPECT_EQ(dir.read("file.bin"), reply.body);
  }
}

TEST_F(DownloadTest, leaves_small_content_in_one_piece_if_told_to) {
  for (const auto& [min_size, requests] :
       {std::pair(501, std::string("all all")), {500, all_ranges}}) {
    serve({.body = body});
    Options options;
    options.min_split_size = min_size;
    download({.opr = std::make_shared<RavelinOperation>(options)});
    EXPECT_EQ(asked(), requests);
    RavelinOperation::clear_files(file());
  }
}

TEST_F(DownloadTest, takes_what_is_not_split_from_the_first_answer_if_told_to) {
  const std::tuple<bool, bool, Reply, std::string, std::string> cases[] = {
      {true, true, {.accept_ranges = false}, "cfsd+", "all"},
      {true, false, {}, "cfsd+", "all"},
      {true, true, {.send_length = false, .piece = 50, .piece_delay = 1ms}, "cfsd+", "all"},
      {true, true, {.accept_ranges = false, .cut_after = 50}, "cfsdc!", "all all"},
      {true, true, {.accept_ranges = false, .content_length = "0"}, "c!", "all"},
      {true, true, {}, "cfsd+", "all"},
      {false, true, {.accept_ranges = false}, "cf!", "all all"}};
  for (const auto& [reuse, split, reply, story, requests] : cases) {
    SCOPED_TRACE(requests + (reuse ? ", reusing" : ""));
    Options options;
    options.reject_http_errors = true;
    options.retry = Retry{.max_attempts = 1};
    options.reuse_header_response = reuse;
    serve([&](const Request& request) {
      auto answer = request.index == 0 ? reply : Reply{.status = 410};
      if (request.index == 0)
        answer.body = body;
      return answer;
    });
    const auto& run =
        download({.split = split, .opr = std::make_shared<RavelinOperation>(options)});
    EXPECT_EQ(run.story, story) << run.error_text;
    EXPECT_EQ(asked(), requests);
    if (run.story.ends_with('+')) {
      EXPECT_EQ(dir.read("file.bin"), body);
    }
    RavelinOperation::clear_files(file());
  }
}

// From a server that is far away, several parts have come before the other requests are answered.
// Those that were not needed may not even have been sent.
TEST_F(DownloadTest, takes_parts_from_the_first_answer_while_that_is_faster) {
  const Reply fast{.body = body, .header_delay = 300ms};
  const Reply slow{.body = body, .header_delay = 60ms, .piece = 10, .piece_delay = 20ms};
  const Reply cut{.body = body, .header_delay = 300ms, .cut_after = 150};
  const Reply halves{.body = body, .header_delay = 60ms, .piece = 50, .piece_delay = 20ms};
  const Reply never{.header_delay = 10s};
  const auto large = pattern(5 * 128 * 1024);
  const std::tuple<Reply, Reply, int, std::string> cases[] = {
      {fast, never, 5, "(100-199 )?(200-299 )?(300-399 )?(400-499 )?all"},
      {slow, Reply{.body = body}, 5, "(0-99 )?100-199 200-299 300-399 400-499 all"},
      {cut, Reply{.body = body, .header_delay = 1s}, 5,
       "(100-199 )?150-199 200-299 300-399 400-499 all"},
      {cut, Reply{.body = body}, 1, "150-199 200-299 300-399 400-499 all"},
      {fast, never, 1, "all"},
      {halves, {.body = body, .honour_ranges = false}, 5, "100-199 200-299 300-399 400-499 all"},
      {halves, {.status = 503, .header_delay = 1s}, 5, "([0-9-]+ ){0,4}all"},
      {halves, {.raw = "SSH-2.0-x\r\n"}, 5, "([0-9-]+ ){1,4}all"},
      {{.body = body, .header_delay = 60ms, .stall_after = 0},
       {.body = body},
       5,
       "0-99 100-199 200-299 300-399 400-499 all"},
      // Each piece is a chunk that ends with a part.
      {{.body = large, .piece = large.size() / 5, .piece_delay = 60ms},
       {.status = 403, .header_delay = 1s},
       5,
       "([0-9-]+ ){3,4}all"}};
  for (const auto& [first, others, connections, requests] : cases) {
    SCOPED_TRACE(requests);
    Options options;
    options.retry = Retry{.max_attempts = 1};
    options.reject_http_errors = true;
    options.require_exact_ranges = true;
    options.max_connections = connections;
    options.reuse_header_response = true;
    serve([&](const Request& request) { return request.index == 0 ? first : others; });
    const auto& run = download({.opr = std::make_shared<RavelinOperation>(options)});
    EXPECT_EQ(run.story, "cfsd+") << run.error_text;
    EXPECT_TRUE(std::regex_match(asked(), std::regex(requests))) << asked();
    EXPECT_EQ(run.last<Status::downloading>()->progress.received_bytes, std::ssize(first.body));
    EXPECT_EQ(dir.read("file.bin"), first.body);
    RavelinOperation::clear_files(file());
  }
}

// It ends the answer that it held, which the end of the test verifies.
TEST_F(DownloadTest, drops_the_first_answer_if_it_does_not_get_to_the_content) {
  serve(Reply{.body = body, .accept_ranges = false, .stall_after = 10});
  Options options;
  options.reuse_header_response = true;
  for (const char at : {'c', 'f', 's', 'd'}) {
    const auto opr = std::make_shared<RavelinOperation>(options);
    const auto& run = download({.opr = opr, .then = [&](char event) {
                                  if (event == at)
                                    opr->cancel();
                                }});
    EXPECT_EQ(run.story, std::string("cfsd").substr(0, std::string("cfsd").find(at) + 1) + "xX");
    RavelinOperation::clear_files(file());
  }
  const FaultyFiles calls([](std::string_view call, const std::string& path) {
    return call == "open" && path.ends_with("file.bin");
  });
  EXPECT_EQ(download({.opr = std::make_shared<RavelinOperation>(options)}).story, "cf!");
  RavelinOperation::clear_files(file());
}

TEST_F(DownloadTest, lets_the_other_parts_end_when_one_fails_and_then_asks_for_what_is_missing) {
  const std::pair<std::vector<std::size_t>, std::string> cases[] = {
      {{0, 0, 0, 0, 0}, all_ranges},
      {{99, 0, 40, 0, 1}, "100-199 240-299 300-399 401-499 99-99 all"},
      {{100, 40, 100, 100, 100}, "140-199 all"}};
  for (const auto& [bytes, expected] : cases) {
    serve([&, come = bytes](const Request& request) {
      const auto range = request.header("Range").value_or("bytes=0");
      const auto end = come[std::stoul(range.substr(6)) / 100];
      return Reply{.body = body, .piece = 10, .piece_delay = 2ms, .cut_after = end};
    });
    EXPECT_TRUE(download({}).story.ends_with('L'));
    serve(Reply{.body = body});
    EXPECT_EQ(download({}).story, "csd+");
    EXPECT_EQ(asked(), expected);
    EXPECT_EQ(dir.read("file.bin"), body) << expected;
    RavelinOperation::clear_files(file());
  }
}

// The whole is sent once, although a part fails or the server refuses so many connections.
TEST_F(DownloadTest, asks_again_for_what_a_part_lacks_as_soon_as_a_connection_is_free) {
  const Reply slow{.body = body, .piece = 10, .piece_delay = 10ms};
  Reply reset = slow, cut = slow, stall = slow, early = slow;
  reset.reset_after = cut.cut_after = stall.stall_after = 40, early.cut_after = 0;
  const std::string in_two = "0-99 100-199 140-199 200-299 300-399 400-499 all",
                    all_three_times =
                        "0-99 0-99 0-99 100-199 100-199 100-199 200-299 200-299 200-299 "
                        "300-399 300-399 300-399 400-499 400-499 400-499 all all all",
                    twice = "0-99 100-199 200-299 300-399 300-399 400-499 all";
  const struct {
    int connections;
    std::string end; // of the ranges of which the first requests fail
    int count;
    Reply fault;
    std::string ranges;
    int sent_before = 0; // the last request
    std::string story = "cfsd+";
    int bare_headers = 0; // without ranges, after the first one
  } cases[] = {
      {5, "199", 1, reset, in_two},
      {5, "199", 1, cut, in_two},
      {5, "199", 1, stall, in_two},
      {5, "199", 2, early, "0-99 100-199 100-199 100-199 200-299 300-399 400-499 all"},
      {2, "499", 2, reset, "0-99 100-199 200-299 300-399 400-499 440-499 480-499 all", 380},
      {5, "399", 1, {.status = 403}, twice, 100},
      {5, "399", 1, {.status = 429}, twice, 100},
      {5,
       "399",
       1,
       {.status = 429, .headers = {{"Retry-After", "1"}}},
       twice + " all",
       400,
       "cfsdcsd+"},
      {5,
       "399",
       1,
       {.status = 429, .headers = {{"Retry-After", "1"}}},
       twice + " all all",
       400,
       "cfsdccsd+",
       1},
      {4, "399", 1, {.status = 503}, twice, 200},
      {5, "99", 10, {.status = 503}, all_three_times, 400, "cfccsd+"},
      {2, "none", 0, {}, all_ranges, 300},
      {1, "none", 0, {}, all_ranges, 400}};
  for (const auto& c : cases) {
    SCOPED_TRACE(&c - cases);
    auto values = Options::careful();
    values.idle_timeout = 300ms;
    values.max_connections = c.connections;
    values.retry = Retry{.max_attempts = 2};
    set_default_options(values);
    std::int64_t sent_before = 0;
    serve([&, left = c.count, bare = c.bare_headers](const Request& request) mutable {
      sent_before = server->bytes_sent();
      const auto range = request.header("Range").value_or("");
      const bool is_bare = range.empty() && request.index > 0 && bare-- > 0;
      return range.empty() ? Reply{.body = body, .accept_ranges = !is_bare, .stall_after = 0}
             : range.ends_with(c.end) && left-- > 0 ? c.fault
                                                    : slow;
    });
    const auto& run = download({});
    EXPECT_EQ(run.story, c.story) << run.error_text;
    EXPECT_EQ(asked(), c.ranges);
    EXPECT_GE(sent_before, c.sent_before);
    EXPECT_EQ(server->bytes_sent(), 500);
    EXPECT_EQ(dir.read("file.bin"), body);
    RavelinOperation::clear_files(file());
  }
}

TEST_F(DownloadTest, continues_with_every_byte_that_came_unless_the_content_has_changed) {
  set_default_options(Options::careful());
  std::string tag = "\"one\"";
  serve([&](const Request&) {
    return Reply{
        .headers = {{"ETag", tag}}, .body = body, .stall_after = released ? Position() : 10};
  });
  const auto opr = std::make_shared<RavelinOperation>();
  opr->set_progress_snap_interval(2);
  auto& first = start_until(50, {.opr = opr});
  const auto& refused = download({.name = "other", .opr = opr});
  EXPECT_EQ(refused.error_text, "An operation is already in-progress for the destination file.");
  EXPECT_TRUE(opr->is_busy() && opr->state().holds<State::downloading>());
  opr->cancel();
  const Progress expected(0.1F, 50, false, 500);
  EXPECT_EQ(finish(first).last<Status::cancelled>()->progress, expected);
  EXPECT_EQ(opr->state().get_if<State::cancelled>()->progress, expected);
  EXPECT_EQ(RavelinOperation::get_progress(file()), expected);
  const auto date = FileProcessor::read_resume_data(file())->server_side_date;
  EXPECT_EQ(date, "Tue, 10 Nov 2026 08:12:55 GMT");
  released = true;
  tag = "\"two\"";
  EXPECT_EQ(download({}).story, "c!");
  tag = "\"one\"";
  const auto& last = download({.opr = opr});
  EXPECT_EQ(last.story, "csd+");
  EXPECT_EQ(last.snap_points, 2) << "the first bytes and the whole";
  EXPECT_EQ(asked(), "0-99 10-99 100-199 110-199 200-299 210-299 300-399 310-399 400-499 410-499 "
                     "all all all");
  EXPECT_EQ(dir.read("file.bin"), body);
  EXPECT_EQ(ravelin::platform::extended_attribute(file(), "ravelin_etag"), std::nullopt);
}

TEST_F(DownloadTest, names_the_kind_of_its_failure) {
  const Reply whole{.body = body};
  const std::tuple<bool, Reply, Reply, std::string, std::string> cases[] = {
      {false, {}, {}, "c!", "File content has zero length."},
      {false, {.close_at_once = true}, {}, "cL", "was lost"},
      {false, whole, {.body = body, .stall_after = 5}, "cfsdT", "timed out"},
      {false, whole, {.body = body, .cut_after = 5}, "cfsdL", "was lost"},
      {true, {.status = 404}, {}, "c!", "status 404"},
      {true, whole, {.status = 503}, "cf!", "status 503"},
      {true, whole, {.body = body + "x"}, "cf!", "has changed"}};
  for (const auto& [careful, header, part, story, text] : cases) {
    auto values = careful ? Options::careful() : Options();
    values.idle_timeout = 1s;
    set_default_options(values);
    serve([&](const Request& request) { return request.index == 0 ? header : part; });
    const auto& run = download({.then = [](char event) {
      if (event == 'f') // which is for later runs
        set_default_options({});
    }});
    EXPECT_EQ(run.story, story);
    EXPECT_TRUE(run.error_text.find(text) != text.npos) << run.error_text;
    EXPECT_TRUE(run.opr->state().holds<State::failed>());
    RavelinOperation::clear_files(file());
  }
  std::string local;
  const auto opr = std::make_shared<RavelinOperation>();
  opr->resume(file(), file("a"), true, OnConflict::resume, [&](const Status& status) {
    if (const auto* const failed = status.get_if<Status::error>())
      local = failed->custom_error.text();
  });
  pump_until([&] { return !opr->is_busy(); });
  EXPECT_EQ(local, "Couldn't cast response to `HTTPURLResponse`.");
  const URLLoadingError offline(URLError::not_connected_to_internet, "");
  EXPECT_EQ(make_custom_error(Error(std::make_exception_ptr(offline))).value.index(), 2U);
}

// Odd, and kept: the save that failed stops the parts, which end as cancelled and not as failed.
TEST_F(DownloadTest, ends_as_the_last_save_does_when_an_earlier_one_fails) {
  serve(Reply{.body = body, .piece = 1, .piece_delay = 10ms});
  const std::tuple<int, int, std::string, std::string> cases[] = {
      {1, 1, "cfsd+", ""}, {1, 999, "cfsd!", "Couldn't update"}, {0, 0, "c!", "Couldn't create"}};
  for (const auto& [first, last, story, text] : cases) {
    std::atomic<int> saves = 0;
    const FaultyFiles calls([&](std::string_view call, const std::string& path) {
      const int number = call == "rename" && path.ends_with(".lgresume") ? saves++ : -1;
      return number >= first && number <= last ? ENOSPC : 0;
    });
    const auto& run = download({});
    EXPECT_EQ(run.story, story);
    EXPECT_EQ(RavelinOperation::get_progress(file()).received_bytes,
              story == "cfsd!" ? 0 : run.received);
    EXPECT_LT(run.received, 500);
    if (const auto* const failed = run.last<Status::error>()) {
      EXPECT_TRUE(run.error_text.starts_with(text + " resume file: \n")) << run.error_text;
      EXPECT_EQ(failed->custom_error.get_if<CustomError::other>()->error.code(),
                std::errc::no_space_on_device);
    }
    RavelinOperation::clear_files(file());
  }
}

// The files after each failure are such that the next run completes them.
TEST_F(DownloadTest, survives_the_failure_of_each_single_call) {
  serve(Reply{.body = body});
  std::atomic<int> left = -1;
  std::string failed = "none";
  const FaultyFiles calls([&](std::string_view call, const std::string& path) {
    const bool vital = path.ends_with(".bin") && (call == "pwrite" || call == "fdatasync");
    const bool mark = path.find(".hidden") != path.npos || call.ends_with("xattr"); // may stay
    const bool fails = !vital && !mark && left-- == 0;
    failed = fails ? std::string(call) + " " + path : failed;
    return fails ? EIO : 0;
  });
  for (int nth = 0; !failed.empty(); ++nth) {
    failed.clear();
    left = nth;
    const auto& run = download({});
    left = -1;
    EXPECT_TRUE(download({}).story.ends_with('+')) << failed << ": " << run.story;
    EXPECT_EQ(dir.read("file.bin"), body);
    RavelinOperation::clear_files(file());
  }
}

TEST_F(DownloadTest, may_be_dropped_and_started_again_in_callbacks_or_have_none) {
  serve(Reply{.body = body});
  for (const char moment : {'c', 's', 'd', '+'}) {
    auto& run = start({.name = std::string(1, moment)});
    Download* second = nullptr;
    run.then = [&](char event) {
      if (event == '+' && run.opr)
        second = &start({.name = "again", .opr = run.opr});
      if (event == moment)
        run.opr.reset();
    };
    EXPECT_EQ(finish(run).story, "cfsd+") << moment;
    EXPECT_TRUE(moment != '+' || finish(*second).story == "cfsd+");
  }
  const auto opr = std::make_shared<RavelinOperation>();
  opr->resume(URL(server->url()), file(), true, OnConflict::resume, nullptr);
  pump_until([&] { return !opr->is_busy(); });
  EXPECT_EQ(dir.read("file.bin"), body);
  EXPECT_THROW(RavelinOperation().resume(URL(), file(), true, OnConflict::resume, {}),
               std::logic_error);
}

TEST_F(DownloadDeathTest, ends_the_process_when_a_callback_throws) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto fail = [](char) { throw std::runtime_error("from a callback"); };
  EXPECT_DEATH(download({.then = fail}), "from a callback");
}

} // namespace
} // namespace test
