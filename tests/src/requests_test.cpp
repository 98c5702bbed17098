#include "src/HeaderOpr.h"
#include "src/PartialDataOpr.h"
#include "tests/src/transfer_fixture.h"

namespace test {
namespace {

// Two requests, each made by one object again and again.
class RequestTest : public TransferTest {
protected:
  using Answer = HeaderOpr::Status;
  static void nothing() {}

  Answer ask(const std::string& link, const std::function<void()>& meanwhile = nothing) {
    std::optional<Answer> told;
    header->request(URL(link), [&](const Answer& answer) {
      EXPECT_TRUE(!told && MainQueue::is_main_thread() && !header->is_busy());
      told = answer;
    });
    meanwhile();
    pump_until([&] { return told.has_value(); });
    return *told;
  }
  // A letter for each event: connecting, header, data (once), and success (+), error (!), cancelled
  // (x); then the length and the error's code.
  std::string fetch(std::optional<PartialDataOpr::BytesRange> range = {}, char cancel_at = 0,
                    const std::function<void()>& meanwhile = nothing) {
    using Event = PartialDataOpr::Status;
    std::string told, facts;
    got.clear();
    part->request(URL(server->url()), range, [&](const Event& event) {
      const char letter = "hd!cb+x"[event.value.index()];
      EXPECT_EQ(MainQueue::is_main_thread(), letter != 'b');
      if (const auto* const started = std::get_if<Event::started>(&event.value))
        facts = " " + std::to_string(started->content_length.value_or(-1));
      if (const auto* const failed = std::get_if<Event::error>(&event.value))
        facts += " " + std::to_string(failed->error.code().value());
      if (const auto* const data = std::get_if<Event::did_receive_data>(&event.value)) {
        got += data->progress.data.text();
        progress = data->progress.prog_value;
      }
      ravelin::bramblekit::main_sync([&] {
        EXPECT_TRUE(letter != 'b' || (told.ends_with('d') && !part->is_cancelled())) << told;
        if (letter != 'b' && (letter != 'd' || !told.ends_with('d')))
          told += letter;
      });
      if (letter == cancel_at)
        part->cancel();
    });
    meanwhile();
    pump_until([&] { return told.find_first_of("+!x") != told.npos; });
    EXPECT_FALSE(part->is_busy());
    return told + facts;
  }
  // Cancels when the answer has come and the main thread has not heard of it.
  static void cancel_before_it_is_told(LGOperation& request) {
    for (int hop = 0; hop < 2; ++hop) {
      pollfd readable{MainQueue::descriptor(), POLLIN, 0};
      EXPECT_EQ(poll(&readable, 1, 40'000), 1);
      EXPECT_EQ(hop == 0 ? MainQueue::drain() : 1, 1U); // the first one starts the request
    }
    request.cancel();
  }

  std::shared_ptr<HeaderOpr> header = std::make_shared<HeaderOpr>();
  std::shared_ptr<PartialDataOpr> part = std::make_shared<PartialDataOpr>();
  std::string got;
  float progress = 0;
};

TEST_F(RequestTest, for_the_header_reads_three_facts_or_tells_the_error) {
  const std::tuple<std::string, bool, std::optional<std::int64_t>, std::string> cases[] = {
      {"200 OK\r\nAccept-Ranges: bytes\r\nContent-Length: 5\r\nDate: today", true, 5, "today"},
      {"200 OK\r\naccept-ranges: megabytes\r\nCONTENT-LENGTH: 0\r\ndate: x y", true, 0, "x y"},
      {"200 OK\r\nAccept-Ranges: Bytes\r\nContent-Length: abc", false, {}, ""},
      {"404 Not Found\r\nAccept-Ranges: none\r\nContent-Length: 9", false, 9, ""}};
  for (const auto& [head, ranges, length, date] : cases) {
    serve(Reply{.raw = "HTTP/1.1 " + head + "\r\n\r\n123456789"});
    const auto answer = ask(server->url());
    const auto& result = std::get<Answer::success>(answer.value).result;
    EXPECT_EQ(std::tie(result.ranges_accepted, result.content_length, result.server_side_date),
              std::tie(ranges, length, date));
  }
  header->settings = ravelin::platform::RequestSettings::snapshot(Options::careful());
  const auto refused = std::get<Answer::error>(ask(server->url()).value).error.text();
  EXPECT_EQ(refused, "the server answered with status 404");
  EXPECT_EQ(asked(), "all all");
  const auto local =
      std::get<Answer::error>(ask(URL::file(dir.write("a", "b")).text()).value).error;
  EXPECT_TRUE(local.text().starts_with("Couldn't cast response to `HTTPURLResponse`. "));
}

TEST_F(RequestTest, for_a_part_hands_on_what_the_server_sends_or_tells_the_error) {
  const auto text = pattern(300'000), slice = text.substr(100, 100);
  const std::string until_close = "HTTP/1.1 206 P\r\nContent-Range: bytes 100-199/*\r\n\r\n";
  const std::tuple<bool, Reply, bool, std::string, std::string, float> cases[] = {
      {false, {.body = text}, true, "chd+ 100", slice, 1},
      {false, {.body = text}, false, "chd+ 300000", text, 1},
      {false, {.body = text, .honour_ranges = false}, true, "chd+ 300000", text, 1},
      {false, {.body = text, .send_length = false}, false, "chd+ -1", text, 0},
      {false, {.status = 404, .body = "gone"}, true, "chd+ 4", "gone", 1},
      {false, {.header_delay = never}, false, "c! -1001", "", 0},
      {false, {.body = text, .cut_after = 50}, true, "chd! 100 -1005", text.substr(100, 50), 0.5F},
      {true, {.body = text}, true, "chd+ 100", slice, 1},
      {true, {.body = text, .content_range = "bytes 0-99/9"}, true, "c! -1011", "", 0},
      {true, {.body = text + "x"}, true, "c! -1011", "", 0},
      {true, {.raw = until_close + "x"}, true, "chd! -1 -1005", "x", 0},
      {true, {.raw = until_close + slice + "x"}, true, "ch! -1 -1011", "", 0}};
  for (const auto& [exact, reply, ranged, expected, content, prog_value] : cases) {
    SCOPED_TRACE(expected);
    serve(reply);
    Options values;
    values.idle_timeout = 1s;
    values.require_exact_ranges = exact;
    part->settings = ravelin::platform::RequestSettings::snapshot(values);
    part->expected_version = ContentVersion{{}, {}, 300'000};
    progress = 0;
    EXPECT_EQ(fetch(ranged ? std::optional(PartialDataOpr::BytesRange{100, 199}) : std::nullopt),
              expected);
    EXPECT_EQ(asked(), ranged ? "100-199" : "all");
    EXPECT_TRUE(got == content);
    EXPECT_EQ(progress, prog_value);
  }
}

TEST_F(RequestTest, is_silent_after_a_cancel) {
  serve(Reply{.header_delay = never});
  header->cancel();
  part->cancel();
  const auto is_cancelled = [](const Answer& answer) {
    return std::holds_alternative<Answer::cancelled>(answer.value);
  };
  EXPECT_TRUE(is_cancelled(ask(server->url())));
  EXPECT_EQ(fetch(), "x");
  EXPECT_TRUE(server->requests().empty());
  const auto cancel_in_silence = [&] {
    pump_until([&] { return server->requests().size() == 1; });
    header->cancel();
  };
  EXPECT_TRUE(is_cancelled(ask(server->url(), cancel_in_silence)));
  serve_stalling();
  EXPECT_TRUE(is_cancelled(ask(server->url(), [&] { cancel_before_it_is_told(*header); })));
  EXPECT_EQ(fetch({}, 0, [&] { cancel_before_it_is_told(*part); }), "cx");
  const std::pair<char, std::string> moments[] = {
      {'c', "cx"}, {'h', "chx 500"}, {'d', "chdx 500"}, {'b', "chdx 500"}};
  for (const auto& [moment, expected] : moments)
    EXPECT_EQ(fetch({}, moment), expected);
}

} // namespace
} // namespace test
