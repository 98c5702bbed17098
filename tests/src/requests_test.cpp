#include "bramblekit/main_thread.h"
#include "platform/network/data_task.h"
#include "src/HeaderOpr.h"
#include "src/PartialDataOpr.h"
#include "tests/src/transfer_fixture.h"

#include <limits>
#include <regex>

#include <poll.h>

namespace test {
namespace {

class HeaderOprTest : public TransferTest {
protected:
  // Asks for the header; the answer must come once and on the main thread.
  std::string ask(const URL& link) {
    begin(link);
    pump_until([&] { return !answer.empty(); });
    return answer;
  }
  void begin(const URL& link) {
    answer.clear();
    opr->request(link, [this](const HeaderOpr::Status& status) {
      EXPECT_EQ(answer, "");
      EXPECT_TRUE(MainQueue::is_main_thread());
      EXPECT_FALSE(opr->is_busy() || opr->is_cancelled());
      if (const auto* const success = std::get_if<HeaderOpr::Status::success>(&status.value))
        answer = render(success->result);
      else if (const auto* const error = std::get_if<HeaderOpr::Status::error>(&status.value))
        answer = error->error.text();
      else
        answer = "cancelled";
    });
  }
  static std::string render(const HeaderOpr::Result& result) {
    const auto length = result.content_length;
    return std::string(result.ranges_accepted ? "ranges " : "whole ") +
           (length ? std::to_string(*length) : "?") + " [" + result.server_side_date + "]";
  }

  std::shared_ptr<HeaderOpr> opr = std::make_shared<HeaderOpr>();
  std::string answer;
};

TEST_F(HeaderOprTest, reads_the_three_facts_from_whatever_answer_there_is) {
  const std::pair<std::string, std::string> cases[] = {
      {"200 OK\r\nAccept-Ranges: bytes\r\nContent-Length: 5\r\nDate: today", "ranges 5 [today]"},
      {"200 OK\r\naccept-ranges: bytes\r\nCONTENT-LENGTH: 0\r\ndate: x", "ranges 0 [x]"},
      {"200 OK\r\nAccept-Ranges: none, bytes", "ranges ? []"},
      {"200 OK\r\nAccept-Ranges: megabytes", "ranges ? []"},
      {"200 OK\r\nAccept-Ranges: Bytes", "whole ? []"},
      {"200 OK\r\nAccept-Ranges: none\r\nContent-Length: 7", "whole 7 []"},
      {"200 OK\r\nContent-Length: abc\r\nDate: Tue, 10 Nov", "whole ? [Tue, 10 Nov]"},
      {"200 OK\r\nContent-Length: 99999999999999999999", "whole ? []"},
      {"200 OK\r\nContent-Length: +7", "whole 7 []"},
      {"200 OK\r\nContent-Length: 7 8\r\nDate:", "whole ? []"},
      {"404 Not Found\r\nAccept-Ranges: bytes\r\nContent-Length: 9", "ranges 9 []"},
      {"500 Oh\r\nContent-Length: 3", "whole 3 []"},
      {"206 Part\r\nContent-Length: 3\r\nContent-Range: bytes 0-2/9", "whole 3 []"},
  };
  for (const auto& [head, expected] : cases) {
    serve(Reply{.raw = "HTTP/1.1 " + head + "\r\n\r\n123456789"});
    EXPECT_EQ(ask(URL(server->url())), expected) << head;
  }
  EXPECT_EQ(server->requests().front().method, "GET");
  EXPECT_EQ(server->requests().front().header("Range"), std::nullopt);
}

TEST_F(HeaderOprTest, passes_errors_on) {
  serve(Reply{.close_at_once = true});
  EXPECT_EQ(ask(URL(server->url())), "Empty reply from server");
  EXPECT_TRUE(ask(URL("gopher://x/")).ends_with("only http and https links work"));
  dir.write("file.bin", "text");
  EXPECT_EQ(ask(URL(file().text())).substr(0, 45), "Couldn't cast response to `HTTPURLResponse`. ");
}

TEST_F(HeaderOprTest, can_be_cancelled_at_any_time) {
  serve([](const Request& r) { return Reply{.header_delay = r.index == 0 ? never : 0h}; });
  const URL link(server->url());
  opr->cancel();
  EXPECT_EQ(ask(link), "cancelled");
  EXPECT_TRUE(server->requests().empty());

  begin(link); // the server is silent
  pump_until([&] { return server->requests().size() == 1; });
  opr->cancel();
  pump_until([&] { return !answer.empty(); });
  EXPECT_EQ(answer, "cancelled");

  begin(link); // the header has come, but the main thread has not heard of it
  for (int hop = 0; hop < 2; ++hop) {
    pollfd readable{MainQueue::descriptor(), POLLIN, 0};
    ASSERT_EQ(poll(&readable, 1, 40'000), 1);
    ASSERT_EQ(hop == 0 ? MainQueue::drain() : 1, 1U); // the first one starts the request
  }
  opr->cancel();
  MainQueue::drain();
  EXPECT_EQ(answer, "cancelled");
}

TEST_F(HeaderOprTest, ignores_a_second_response) {
  const auto session = ravelin::platform::URLSession::make(
      ravelin::platform::URLSessionConfiguration::ephemeral(), opr);
  const auto task = session->data_task(URL("http://127.0.0.1/"));
  const ravelin::platform::URLResponse response{
      .is_http = true, .status = 200, .header_fields = {}};
  int decisions = 0;
  for (int i = 0; i < 2; ++i)
    opr->urlSession(*session, *task, response,
                    [&](ravelin::platform::ResponseDisposition disposition) {
                      EXPECT_EQ(disposition, ravelin::platform::ResponseDisposition::cancel);
                      ++decisions;
                    });
  EXPECT_EQ(decisions, 1);
}

class PartialDataOprTest : public TransferTest {
protected:
  using Event = PartialDataOpr::Status;
  using Range = PartialDataOpr::BytesRange;

  void begin(std::optional<Range> range = std::nullopt) {
    story.clear();
    body.clear();
    opr->request(URL(server->url()), range, [this](const Event& event) { take(event); });
  }
  std::string fetch(std::optional<Range> range = std::nullopt) {
    begin(range);
    pump_until([this] { return ended(); });
    return story;
  }
  bool ended() const { return story.find_first_of("+!x") != story.npos; }
  bool is_like(const char* expression) const {
    return std::regex_match(story, std::regex(expression));
  }

  std::shared_ptr<PartialDataOpr> opr = std::make_shared<PartialDataOpr>();
  // A letter for each event: connecting, header, data, background, and success (+), error (!), x.
  std::string story;
  std::string body;
  std::optional<std::int64_t> length;
  float progress = 0;
  std::optional<Error> error;
  char cancel_at = 0;

private:
  void take(const Event& event) {
    const char letter = std::string_view("hd!cb+x")[event.value.index()];
    EXPECT_EQ(MainQueue::is_main_thread(), letter != 'b');
    ravelin::bramblekit::main_sync([&] { story += letter; });
    if (const auto* const started = std::get_if<Event::started>(&event.value))
      length = started->content_length;
    if (const auto* const data = std::get_if<Event::did_receive_data>(&event.value)) {
      body += data->progress.data.text();
      progress = data->progress.prog_value;
    }
    if (const auto* const failed = std::get_if<Event::error>(&event.value))
      error = failed->error;
    if (letter == cancel_at)
      opr->cancel();
  }
};

TEST_F(PartialDataOprTest, hands_on_what_the_server_sends) {
  const auto text = pattern(300'000);
  const auto slice = text.substr(100, 100);
  constexpr auto infinite = std::numeric_limits<float>::infinity();
  const struct {
    const char* name;
    Reply reply;
    bool with_range;
    std::string body;
    std::optional<std::int64_t> length;
    float progress;
  } cases[] = {
      {"range", {.body = text}, true, slice, 100, 1},
      {"whole", {.body = text}, false, text, 300'000, 1},
      {"range ignored", {.body = text, .honour_ranges = false}, true, text, 300'000, 1},
      {"wrong range", {.body = text, .content_range = "bytes 0-99/9"}, true, slice, 100, 1},
      {"no length", {.body = text, .send_length = false}, false, text, {}, 0},
      {"no number", {.body = "x", .content_length = "abc"}, false, "x", {}, 0},
      {"error page", {.status = 404, .body = "gone"}, true, "gone", 4, 1},
      {"longer", {.body = slice, .content_length = "50", .chunked = true}, false, slice, 50, 2},
      {"zero", {.body = "x", .content_length = "0", .chunked = true}, false, "x", 0, infinite},
  };
  for (const auto& c : cases) { // one object for all of them
    SCOPED_TRACE(c.name);
    serve(c.reply);
    fetch(c.with_range ? std::optional<Range>({100, 199}) : std::nullopt);
    EXPECT_TRUE(is_like("ch(db)+[+]")) << story;
    EXPECT_EQ(server->requests().back().header("Range").value_or("-"),
              c.with_range ? "bytes=100-199" : "-");
    EXPECT_EQ(length, c.length);
    EXPECT_TRUE(body == c.body);
    EXPECT_EQ(progress, c.progress);
    EXPECT_FALSE(opr->is_busy());
  }
  Defaults values;
  values.require_exact_ranges = true;
  set_defaults(values);
  opr->expected_version = ContentVersion{.strong_etag = {}, .last_modified = {}, .total = 300'000};
  serve(Reply{.body = text});
  for (int i = 0; i < 2; ++i) {
    fetch();
    EXPECT_TRUE(is_like("ch(db)+[+]")) << story << ": each run counts from its own beginning";
  }
}

TEST_F(PartialDataOprTest, is_silent_after_a_cancel) {
  serve(Reply{.body = pattern(1000), .stall_after = 50});
  opr->cancel();
  EXPECT_EQ(fetch(), "x");
  EXPECT_TRUE(server->requests().empty());
  cancel_at = 'h';
  EXPECT_EQ(fetch(), "chx");
  cancel_at = 'd';
  EXPECT_EQ(fetch(), "chdx");
  cancel_at = 0;
  begin(Range{100, 199});
  pump_until([&] { return body.size() == 50; });
  EXPECT_EQ(progress, 0.5F) << "of its own range";
  opr->cancel();
  pump_until([&] { return ended(); });
  EXPECT_TRUE(is_like("ch(db)*db?x")) << story;
}

TEST_F(PartialDataOprTest, passes_errors_on) {
  set_idle_timeout(1s);
  const struct {
    Reply reply;
    const char* story;
    URLError code;
  } cases[] = {
      {{.header_delay = never}, "c!", URLError::timed_out},
      {{.body = "12345", .stall_after = 3}, "ch(db)+!", URLError::timed_out},
      {{.body = "12345", .cut_after = 3}, "ch(db)+!", URLError::network_connection_lost},
      {{.body = "12345", .reset_after = 3}, "ch(db)*!", URLError::network_connection_lost},
      {{.close_at_once = true}, "c!", URLError::network_connection_lost},
      {{.raw = "nonsense\r\n\r\n"}, "c!", URLError::bad_server_response},
  };
  for (const auto& c : cases) {
    serve(c.reply);
    fetch();
    EXPECT_TRUE(is_like(c.story)) << story << " for " << c.story;
    EXPECT_EQ(error->code(), c.code) << error->text();
  }
}

using PartialDataOprDeathTest = PartialDataOprTest;

TEST_F(PartialDataOprDeathTest, takes_an_answer_without_http_for_a_broken_invariant) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  dir.write("file.bin", "text");
  const auto fetch_file = [&] {
    opr->request(URL(file().text()), std::nullopt, [](const Event&) {});
    pump_until([] { return false; });
  };
  EXPECT_DEATH(fetch_file(), "without an HTTP response");
}

} // namespace
} // namespace test
