#include "platform/network/http_response.h"
#include "platform/network/range_check.h"

#include <cstdint>
#include <gtest/gtest.h>

namespace ravelin::platform {
namespace {

/// What the collector makes of `text`: a letter for each end that it saw, status and fields.
std::string collected(const std::string& text) {
  HeaderCollector collector;
  std::string result;
  for (std::size_t at = 0, next = 0; at < text.size(); at = next) {
    next = text.find('\n', at) + 1;
    result += "-irfX"[static_cast<int>(collector.add(text.substr(at, next - at)))];
  }
  std::erase(result, '-');
  result += " " + std::to_string(collector.response().status);
  for (const auto& [name, value] : collector.response().header_fields)
    result += " " + name + "=" + value;
  return result;
}

TEST(HeaderCollector, keeps_the_last_head_of_a_chain) {
  const std::string ok = "HTTP/1.1 200 OK\r\n",
                    odd = "HTTP/1.1 201 \nA:\t b:c \t\nno colon\nB:\n\n",
                    moved = "HTTP/1.1 302 Found\r\nLocation: /b\r\nOld: 1\r\n\r\n";
  const std::pair<std::string, const char*> cases[] = {
      {ok + "A: b\r\n\r\n", "f 200 A=b"},
      {"HTTP/1.0 404\r\n\r\n", "f 404"},
      {"HTTP/1.1\r\n\r\n", "f 0"},
      {"HTTP/1.1 abc\r\n\r\n", "f 0"},
      {odd, "f 201 A=b:c B="},
      {"HTTP/1.1 103 Hints\r\nOld: 1\r\n\r\n" + ok + "\r\n", "if 200"},
      {moved, "r 302 Location=/b Old=1"},
      {moved + moved + ok + "\r\n", "rrf 200"},
      {"HTTP/1.1 302 Found\r\nLocation:\r\n\r\n", "f 302 Location="},
      {"HTTP/1.1 201 Made\r\nLOCATION: /b\r\n\r\n", "f 201 LOCATION=/b"},
      {ok + "A: 1\r\na:2\r\nA: 3\r\nB: 4\r\nb: 4\r\n\r\n", "f 200 A=1, 2, 3 B=4"},
      {ok + "\r\nTrailer: 1\r\n\r\n", "f 200"},
      {ok + "\r\nHTTP-Trailer: 404\r\n\r\n", "f 200"},
      {ok + "HTTP-Field: 404\r\n\r\n", "f 200 HTTP-Field=404"},
      {ok + "A: \xe4\r\n\r\n", "f 200 A=\xc3\xa4"},
      {ok + "A: " + std::string(300'000, 'x') + "\r\n", "X 200"},
      {"Content-Length: 5\r\n\r\n", " 0"}};
  for (const auto& [text, expected] : cases)
    EXPECT_EQ(expected, collected(text)) << text.substr(0, 100);
}

template <class... Text> void expect_no_range(Text... texts) {
  for (const auto* text : {texts...})
    EXPECT_EQ(std::nullopt, parse_content_range(text)) << text;
}

TEST(ContentRange, is_read_exactly_or_not_at_all) {
  const std::pair<const char*, ContentRange> good[] = {
      {"bytes 0-99/1000", {0, 99, 1000}},
      {" BYTES 0-0/1 ", {0, 0, 1}},
      {"bytes 5-9/*", {5, 9, {}}},
      {"bytes 1-9223372036854775806/9223372036854775807", {1, INT64_MAX - 1, INT64_MAX}}};
  for (const auto& [text, range] : good)
    EXPECT_EQ(range, parse_content_range(text)) << text;
  expect_no_range("", "bytes", "bytes ", "bytes */100", "bytes 9-0/10", "bytes 0-1", "0-1/2",
                  "items 0-1/2", "bytes 0-1/", "bytes 0-1/x", "bytes 0-1/2/3",
                  "bytes 0-1/2, bytes 4-5/9", "bytes -1-2/3", "bytes +0-1/2", "bytes 0-1/-5",
                  "bytes 0x0-1/2", "bytes 0/1-2", "bytes=0-1/2", "bytes 0-9223372036854775808/*",
                  "bytes 18446744073709551617-9/*", "bytes 0-9/18446744073709551626",
                  "bytes 0-99/99");
}

TEST(RangeFault, is_found_in_everything_but_the_range_asked_for) {
  const auto asked = parse_requested_range("bytes=10-19");
  ASSERT_EQ((ContentRange{10, 19, {}}), asked);
  for (const auto* no_range : {"", "bytes=", "bytes=5-", "bytes=-5", "bytes=9-0", "bytes=0-1,4-5",
                               "bytes=0-1/2", "bytes 0-1", "bytes=0-9223372036854775808"})
    EXPECT_EQ(std::nullopt, parse_requested_range(no_range)) << no_range;
  const std::tuple<int, const char*, const char*, const char*> cases[] = {
      {206, "bytes 10-19/100", "10", ""},
      {206, "bytes 10-19/*", "10", ""},
      {200, "bytes 10-19/100", "10", "status 200"},
      {416, "bytes */100", "0", "status 416"},
      {206, "bytes 10-18/100", "10", "sent 'bytes 10-18/100'"},
      {206, "bytes 11-19/100", "10", "sent 'bytes 11-19/100'"},
      {206, "bytes 10-19/100, bytes 10-19/200", "10", "sent 'bytes 10-19/100, bytes"},
      {206, "bytes 10-19/*", "11", "announced 11"}};
  for (const auto& [status, range, length, words] : cases) {
    const HeaderFields fields{{"content-range", range}, {"Content-Length", length}};
    const auto fault = range_fault(*asked, {true, status, fields});
    EXPECT_EQ(*words == '\0', !fault) << words;
    EXPECT_NE(std::string::npos, fault.value_or("").find(words)) << words;
  }
  EXPECT_TRUE(range_fault(*asked, {true, 206, {}}));
}

} // namespace
} // namespace ravelin::platform
