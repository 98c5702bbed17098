#include "app/checksum.h"
#include "app/columns.h"
#include "app/event_lines.h"
#include "app/naming.h"
#include "app/options.h"
#include "tests/harness/patterns.h"

#include <clocale>

namespace test {
namespace {
using namespace ravelin;
using namespace ravelin::app;

const std::string lost = "\uFFFD";

TEST(Naming, completes_a_link) {
  expect(complete_link, {"h/x?y=http://g -> http://h/x?y=http://g", "ftp://h/x -> ftp://h/x",
                         "http://h/a b c -> http://h/a%20b%20c"});
  expect(shown_link, {"http://u:secret@h/x -> http://u:***@h/x", "http://u@h/:p -> http://u@h/:p",
                      "http://h/a@b:c -> http://h/a@b:c", "http://h/[3m -> http://h/?[3m"});
}

TEST(Texts, are_fit_for_a_terminal) {
  expect(printable, {"\u00E4\u20AC\U0001F3AC -> \u00E4\u20AC\U0001F3AC",
                     "a\nb\x1B[3m\x7F -> a?b?[3m?", "\xFF -> " + lost, "a\u202Eb\u009Bc -> a?b?c",
                     "\xC3 -> " + lost, "\xC0\xAF -> " + lost + lost, "\xE2\x82 -> " + lost + lost,
                     "\xED\xA0\x80 -> " + lost + lost + lost,
                     "\xF4\x90\x80\x80 -> " + lost + lost + lost + lost});
  ASSERT_TRUE(std::setlocale(LC_CTYPE, "C.UTF-8"));
  expect([](const auto& text) { return fitted(text, 6); },
         {"abc -> abc   ", "abcdefgh -> abcde\u2026", "\u00E4\u00F6 -> \u00E4\u00F6    ",
          " ->       ", "\u65E5\u672C\u8A9E\u3067 -> \u65E5\u672C\u2026 ",
          "abcde\u65E5 -> abcde\u2026", "a\xFF!b\xC3 -> a?!b? "});
  expect([](const auto& size) { return human_size(std::stoll(size)); },
         {"1023 -> 1023 B", "12897485 -> 12.3 MiB", "9223372036854775807 -> 8192.0 PiB"});
  expect([](const auto& text) { return std::to_string(parse_size(text).value_or(-1)); },
         {"7 -> 7", "1k -> 1024", "1.5MB -> 1572864", "2G -> 2147483648", "k -> -1", "1kk -> -1",
          "1KiB -> -1", "-1 -> -1", "nan -> -1", " -> -1", "9000000000G -> -1"});
}

TEST(Checksum, is_found_in_lists_and_fields) {
  const std::string a(64, 'a'), b(64, 'B'), c = std::string(63, 'c') + "_";
  const auto find = [](const std::string& list) {
    return find_checksum(list, "x y").value_or(Checksum{{}, "none"}).digits.substr(0, 4);
  };
  expect(find, {a + "  x y -> aaaa", b + " *d/x y\r\n" + a + "  z -> bbbb",
                "SHA256 (x y) = " + b + " -> bbbb", a + "\n -> aaaa", a + "\n" + b + " -> none",
                a + "  z -> none", c + "  x y -> none", a + "a  x y -> none", " -> none"});
  const auto name = [](const std::string& field) {
    Response response;
    response.header_fields = {{"repr-digest", field}};
    const auto digest = digest_of(response);
    return digest ? digest->name() + " " + digest->digits.substr(0, 6) : "none";
  };
  const std::string short_sum = "////" + std::string(39, 'A') + "=", long_sum(86, '/');
  expect(name, {"sha-256=:" + short_sum + ": -> SHA-256 ffffff",
                "md5=:aaaa:, sha-512=:" + long_sum + "==: -> SHA-512 ffffff",
                "SHA-256=" + short_sum + ",unixsum=1 -> SHA-256 ffffff", "sha-256=:////: -> none",
                "sha-256=:" + short_sum + " -> none", "xsha-256=:" + short_sum + ": -> none"});
}

TEST(EventLine, is_one_object_of_JSON) {
  const std::string progress = R"(,"received_bytes":6,"content_length":)";
  const std::pair<Status, std::string> cases[] = {
      {{Status::renamed{URL::file("/g")}}, R"(renamed"*,"new_file_url":"/g"})"},
      {{Status::files_are_created{URL::file("/g"), URL::file("/.g")}},
       R"(files_are_created"*,"main_file_url":"/g","resume_file_url":"/.g"})"},
      {{Status::started{12}}, R"(started"*,"content_length":12})"},
      {{Status::downloading{{0.5F, 6, true, 12}}},
       R"(downloading"*,"prog_value":0.5)" + progress +
           R"(12,"is_at_snap_point":true,"bytes_per_second":0.0,"seconds_left":null})"},
      {{Status::cancelled{true, {{}, 6, false}}},
       R"(cancelled"*,"also_cleared_files":true,"prog_value":null)" + progress +
           R"(null,"is_at_snap_point":false})"},
      {{Status::error{{CustomError::timeout{}}}},
       R"(error"*,"custom_error":"timeout","text":"The request timed out","final":true})"}};
  for (auto [status, text] : cases) {
    text.replace(text.find('*'), 1, R"(,"version":1,"url":"a\"b","dest_file":")" + lost + "?\?\"");
    EXPECT_EQ(event_line(status, {.link = "a\"b", .dest_file = "\xFF\n\x1B"}),
              R"({"event":")" + text);
  }
}

} // namespace
} // namespace test
