#include "app/content_disposition.h"
#include "app/event_lines.h"
#include "app/naming.h"
#include "app/options.h"
#include "app/process_lock.h"
#include "app/progress_view.h"
#include "app/retry.h"
#include "app/sha256.h"
#include "tests/harness/temp_dir.h"

#include <clocale>
#include <cstdlib>
#include <gtest/gtest.h>
#include <iostream>
#include <limits>
#include <optional>
#include <string>
#include <system_error>
#include <utility>
#include <vector>

// What works without a process.

namespace test {
namespace {
namespace fs = std::filesystem;
using namespace ravelin::app;
using ravelin::CustomError;
using ravelin::Error;
using ravelin::Progress;
using ravelin::Status;
using ravelin::URL;
using ravelin::URLError;
using ravelin::URLLoadingError;
using std::chrono::milliseconds;

TEST(Options, read_sizes_with_units) {
  const std::optional<std::int64_t> none;
  const std::pair<const char*, std::optional<std::int64_t>> cases[] = {
      {"0", 0},           {"7", 7},       {"10k", 10240},        {"10K", 10240}, {"1.5M", 1572864},
      {"2G", 2147483648}, {"1kB", 1024},  {"1e3", 1000},         {"", none},     {"k", none},
      {"1T", none},       {"1KiB", none}, {"1 k", none},         {"-1", none},   {"nan", none},
      {"inf", none},      {"9e18", none}, {"9000000000G", none}, {"12x", none},  {"1B", none}};
  for (const auto& [text, bytes] : cases)
    EXPECT_EQ(parse_size(text), bytes) << text;
}

TEST(Naming, takes_a_safe_name_from_a_link) {
  const std::pair<std::string, std::string> cases[] = {
      {"http://h/a/movie.mkv", "movie.mkv"},
      {"http://h/movie.mkv?x=/../y#/z", "movie.mkv"},
      {"h/movie.mkv", "movie.mkv"},
      {"http://h/a%20b%C3%A4.txt", "a b\xC3\xA4.txt"},
      {"http://h", "download"},
      {"http://h/", "download"},
      {"http://h/a/", "download"},
      {"http://h/..", "download"},
      {"http://h/%2e%2E", "download"},
      {"http://h/.", "download"},
      {"http://h/..%2f..%2Fetc%2fpasswd", ".._.._etc_passwd"},
      {"http://h/%2Fetc%2Fpasswd", "_etc_passwd"},
      {"http://h/a%00b", "a_b"},
      {"http://h/a%0Ab%7F", "a_b_"},
      {"http://h/100%", "100%"},
      {"http://h/%FF\xFE", "\xFF\xFE"},
      {"http://h/" + std::string(300, 'x'), std::string(200, 'x')},
      {"http://h/" + std::string(300, 'x') + ".mkv", std::string(196, 'x') + ".mkv"},
      {"http://h/" + std::string(300, '\x80'), std::string(197, '\x80')},
      {"http://h/x." + std::string(300, 'y'), "x." + std::string(198, 'y')},
      {"http://h/" + std::string(195, 'x') + "%E2%82%AC%E2%82%AC.mkv",
       std::string(195, 'x') + ".mkv"},
      {"", "download"}};
  for (const auto& [link, name] : cases) {
    EXPECT_EQ(name_from_link(link), name) << link;
    EXPECT_EQ(fs::path(name_from_link(link)).filename(), name_from_link(link)) << link;
  }
  EXPECT_EQ(with_scheme("h/x"), "http://h/x");
  EXPECT_EQ(with_scheme("h/x?from=http://g/"), "http://h/x?from=http://g/");
  EXPECT_EQ(with_scheme("ftp://h/x"), "ftp://h/x");
}

TEST(Naming, takes_a_safe_name_from_a_content_disposition) {
  const std::optional<std::string> none;
  const std::pair<std::string, std::optional<std::string>> cases[] = {
      {"attachment; filename=\"movie.mkv\"", "movie.mkv"},
      {"ATTACHMENT;FileName = movie.mkv ; size=1", "movie.mkv"},
      {"inline; filename=two words.txt", "two words.txt"},
      {"attachment; x=\"; filename=no\"; filename=yes", "yes"},
      {"attachment; filename=\"a\\\"b\\\\c.txt\"", "c.txt"},
      {"attachment; filename=\"a \\\"b\\\" c;d.txt\"", "a \"b\" c;d.txt"},
      {"attachment; filename=old; filename*=UTF-8''na%C3%AFve%20%e2%82%ac.txt",
       "na\xC3\xAFve \xE2\x82\xAC.txt"},
      {"attachment; filename*=utf-8'en'new; filename=old", "new"},
      {"attachment; filename=first; filename=second", "first"},
      {"attachment; filename=old; filename*=ISO-8859-1''%E4", "old"},
      {"attachment; filename=old; filename*=UTF-8''%E4", "old"},
      {"attachment; filename=old; filename*=UTF-8''..", "old"},
      {"attachment; filename=old; filename*=new", "old"},
      {"attachment; filename=\"\xC3\x83\xC2\xA4\"", "\xC3\xA4"}, // UTF-8 read as Latin-1
      {"attachment; filename=\"\xC3\xA4\"", "\xC3\xA4"},         // Latin-1
      {"attachment; filename=\"../../etc/passwd\"", "passwd"},
      {"attachment; filename=\"C:\\dir\\file.txt\"", "file.txt"},
      {"attachment; filename*=UTF-8''..%2F%2e%2e%5Cx", "x"},
      {"attachment; filename*=UTF-8''a%00b%0Ac%7F", "a_b_c_"},
      {"attachment; filename=.bashrc", "_bashrc"},
      {"attachment; filename=" + std::string(300, 'x'), std::string(200, 'x')},
      {"attachment; filename=\"open", "open"},
      {"attachment; filename=\"open\\", none},
      {"attachment; filename=\"..\"", none},
      {"attachment; filename=dir/", none},
      {"attachment; filename=", none},
      {"attachment; filename", none},
      {"attachment", none},
      {"=;;*=\"", none},
      {"", none}};
  for (const auto& [field, name] : cases)
    EXPECT_EQ(name_from_disposition(field), name) << field;
}

TEST(Naming, makes_any_bytes_printable) {
  const std::string unknown = "\xEF\xBF\xBD";
  const std::pair<std::string, std::string> cases[] = {
      {"plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x8E\xAC",
       "plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x8E\xAC"},
      {"a\nb\x1B[31m\x7F", "a?b?[31m?"},
      {"\xFF", unknown},
      {"\xC3", unknown},
      {"\xC0\xAF", unknown + unknown},
      {"\xE2\x82", unknown + unknown},
      {"\xED\xA0\x80", unknown + unknown + unknown},
      {std::string("a\0b", 3), "a?b"}};
  for (const auto& [bytes, text] : cases)
    EXPECT_EQ(printable(bytes), text);
  EXPECT_EQ(human_size(1023), "1023 B");
  EXPECT_EQ(human_size(12'897'485), "12.3 MiB");
  EXPECT_EQ(human_size(std::numeric_limits<std::int64_t>::max()), "8192.0 PiB");
}

TEST(ProgressView, fits_text_into_terminal_columns) {
  ASSERT_TRUE(std::setlocale(LC_CTYPE, "C.UTF-8"));
  const std::pair<std::string, std::string> cases[] = {
      {"abc", "abc   "},
      {"abcdefgh", "abcdef"},
      {"\xC3\xA4\xC3\xB6", "\xC3\xA4\xC3\xB6    "},
      {"\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E\xE3\x81\xA7", "\xE6\x97\xA5\xE6\x9C\xAC\xE8\xAA\x9E"},
      {"abcde\xE6\x97\xA5", "abcde "},
      {"a\xFF"
       "b\xC3",
       "a?b?  "},
      {"", "      "}};
  for (const auto& [text, fit] : cases)
    EXPECT_EQ(fitted(text, 6), fit);
}

TEST(Options, come_from_the_arguments) {
  const std::string sum(64, 'A');
  const struct {
    std::vector<const char*> arguments;
    std::optional<int> status;
  } cases[] = {
      {{"get", "h/x"}, {}},
      {{"get", "-o", "f", "-d", "d", "-c", "keep_both", "--sha256", sum.c_str(), "h/x"}, {}},
      {{"get", "-H", "A: b", "h/x", "h/y"}, {}},
      {{"status", "f"}, {}},
      {{"clear", "f", "g"}, {}},
      {{"--help"}, 0},
      {{"get", "--help"}, 0},
      {{"--version"}, 0},
      {{}, 2},
      {{"got"}, 2},
      {{"get"}, 2},
      {{"status"}, 2},
      {{"get", "--nonsense", "h/x"}, 2},
      {{"get", "-c", "maybe", "h/x"}, 2},
      {{"get", "-j", "0", "h/x"}, 2},
      {{"get", "--retry", "-1", "h/x"}, 2},
      {{"get", "--retry", "x", "h/x"}, 2},
      {{"get", "--timeout", "0", "h/x"}, 2},
      {{"get", "--timeout", "nan", "h/x"}, 2},
      {{"get", "--limit-rate", "0", "h/x"}, 2},
      {{"get", "--limit-rate", "fast", "h/x"}, 2},
      {{"get", "--sha256", "abc", "h/x"}, 2},
      {{"get", "-H", "A", "h/x"}, 2},
      {{"get", "-H", ": b", "h/x"}, 2},
      {{"get", "-H", "A: b\r\nC: d", "h/x"}, 2},
      {{"get", "-o", "f", "h/x", "h/y"}, 2},
      {{"get", "--sha256", sum.c_str(), "h/x", "h/y"}, 2},
      {{"get", "-i", "/nowhere/links"}, 2}};
  for (auto [arguments, status] : cases) {
    std::string trace;
    for (const auto* const argument : arguments)
      trace += std::string(" ") + argument;
    SCOPED_TRACE(trace);
    arguments.insert(arguments.begin(), "ravelin");
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const auto parsed = parse_arguments(static_cast<int>(arguments.size()), arguments.data());
    std::cout.flush();
    const auto out = testing::internal::GetCapturedStdout();
    const auto err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(parsed.exit_status, status);
    EXPECT_EQ(out.empty(), status != 0);
    EXPECT_EQ(err.starts_with("ravelin: "), status == 2) << err;
  }
}

TEST(Options, carry_the_values_given) {
  const char* const arguments[] = {
      "ravelin",
      "get",
      "--limit-rate",
      "1k",
      "--timeout",
      "0.5",
      "--no-safeguards",
      "--no-split",
      "-H",
      "A:  b ",
      "--sha256",
      "ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789",
      "-x",
      "p:1",
      "h/x"};
  const auto options = parse_arguments(std::size(arguments), arguments).options.get_options;
  EXPECT_EQ(options.links, std::vector<std::string>{"http://h/x"});
  EXPECT_EQ(options.defaults.rate_limit, 1024);
  EXPECT_EQ(options.defaults.idle_timeout, milliseconds(500));
  EXPECT_EQ(options.defaults.proxy, "p:1");
  EXPECT_EQ(options.sha256->substr(0, 8), "abcdef01");
  EXPECT_EQ(options.defaults.headers.at(0), std::make_pair(std::string("A"), std::string("b ")));
  EXPECT_FALSE(options.split || options.defaults.reject_http_errors ||
               options.defaults.require_exact_ranges || options.defaults.reject_changed_content);
}

CustomError other(URLLoadingError error) {
  return {CustomError::other{Error(std::make_exception_ptr(std::move(error)))}};
}

CustomError answered(int status, std::optional<int> retry_after = {}, bool range = false) {
  URLLoadingError error(URLError::bad_server_response, "status");
  error.refusal = URLLoadingError::Refusal::http_status;
  error.http_status = status;
  error.asked_for_range = range;
  if (retry_after)
    error.retry_after = std::chrono::seconds(*retry_after);
  return other(std::move(error));
}

CustomError wrong_range() {
  URLLoadingError error(URLError::bad_server_response, "range");
  error.refusal = URLLoadingError::Refusal::range;
  error.http_status = 200;
  error.asked_for_range = true;
  return other(std::move(error));
}

TEST(RetryPolicy, tells_what_may_pass_from_what_will_not) {
  const CustomError disk{CustomError::other{
      Error(std::make_exception_ptr(std::system_error(EIO, std::system_category())))}};
  const struct {
    const char* name;
    CustomError error;
    Remedy at_once;   // as the first failure of a download in parts
    Remedy with_some; // when bytes have come before
    Remedy in_one_piece;
  } cases[] = {{"time-out",
                {CustomError::timeout{}},
                Remedy::try_again,
                Remedy::try_again,
                Remedy::try_again},
               {"lost",
                {CustomError::network_connection_lost{}},
                Remedy::try_again,
                Remedy::try_again,
                Remedy::try_again},
               {"offline",
                {CustomError::not_connected_to_internet{}},
                Remedy::give_up,
                Remedy::try_again,
                Remedy::give_up},
               {"refused", other({URLError::cannot_connect_to_host, ""}), Remedy::give_up,
                Remedy::try_again, Remedy::give_up},
               {"certificate", other({URLError::server_certificate_untrusted, ""}), Remedy::give_up,
                Remedy::give_up, Remedy::give_up},
               {"disk", disk, Remedy::give_up, Remedy::give_up, Remedy::give_up},
               {"404", answered(404), Remedy::give_up, Remedy::give_up, Remedy::give_up},
               {"408", answered(408), Remedy::try_again, Remedy::try_again, Remedy::try_again},
               {"429", answered(429), Remedy::try_again, Remedy::try_again, Remedy::try_again},
               {"500", answered(500), Remedy::try_again, Remedy::try_again, Remedy::try_again},
               {"503, part", answered(503, {}, true), Remedy::try_again, Remedy::try_again,
                Remedy::try_again},
               {"403, part", answered(403, {}, true), Remedy::try_in_one_piece,
                Remedy::try_in_one_piece, Remedy::give_up},
               {"range", wrong_range(), Remedy::try_in_one_piece, Remedy::try_in_one_piece,
                Remedy::give_up}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    EXPECT_EQ(RetryPolicy(5).judge(c.error, 0, true), c.at_once);
    EXPECT_EQ(RetryPolicy(5).judge(c.error, 10, true), c.with_some);
    EXPECT_EQ(RetryPolicy(5).judge(c.error, 0, false), c.in_one_piece);
    EXPECT_NE(RetryPolicy(0).judge(c.error, 10, true), Remedy::try_again);
  }
}

TEST(RetryPolicy, waits_longer_each_time_and_counts_anew_when_bytes_arrive) {
  RetryPolicy policy(3);
  const CustomError lost{CustomError::network_connection_lost{}};
  for (const int upper : {500, 1000, 2000}) {
    EXPECT_EQ(policy.judge(lost, 10, true), Remedy::try_again);
    EXPECT_LE(policy.wait(), milliseconds(upper));
    EXPECT_GE(policy.wait(), milliseconds(upper / 2));
  }
  EXPECT_EQ(policy.judge(lost, 10, true), Remedy::give_up);
  EXPECT_EQ(policy.judge(lost, 11, true), Remedy::try_again);
  EXPECT_EQ(policy.attempt(), 1);
  const std::pair<int, milliseconds> asked[] = {{7, milliseconds(7000)},
                                                {1'000'000, milliseconds(300'000)}};
  for (const auto& [seconds, wait] : asked) {
    EXPECT_EQ(policy.judge(answered(503, seconds), 11, true), Remedy::try_again);
    EXPECT_EQ(policy.wait(), wait);
  }
  RetryPolicy patient(1'000'000);
  for (int i = 0; i < 100; ++i)
    patient.judge(answered(503, -5), 0, true);
  EXPECT_LE(patient.wait(), milliseconds(30'000));
  EXPECT_GE(patient.wait(), milliseconds(15'000));
}

TEST(EventLine, is_one_object_of_JSON) {
  const auto at = [](const Status& status) { return event_line(status, "l", "f"); };
  const std::string same = R"(","url":"l","dest_file":"f")";
  const std::pair<Status, std::string> cases[] = {
      {{Status::pending{}}, "pending" + same + "}"},
      {{Status::connecting{}}, "connecting" + same + "}"},
      {{Status::cancelling{}}, "cancelling" + same + "}"},
      {{Status::success{}}, "success" + same + "}"},
      {{Status::renamed{URL::file("/x/g")}}, "renamed" + same + R"(,"new_file_url":"/x/g"})"},
      {{Status::files_are_created{URL::file("/x/g"), URL::file("/x/.g")}},
       "files_are_created" + same + R"(,"main_file_url":"/x/g","resume_file_url":"/x/.g"})"},
      {{Status::started{12}}, "started" + same + R"(,"content_length":12})"},
      {{Status::started{}}, "started" + same + R"(,"content_length":null})"},
      {{Status::downloading{{0.5F, 6, true, 12}}},
       "downloading" + same +
           R"(,"prog_value":0.5,"received_bytes":6,"content_length":12,"is_at_snap_point":true})"},
      {{Status::cancelled{true, {{}, 6, false}}},
       "cancelled" + same +
           R"(,"also_cleared_files":true,"prog_value":null,"received_bytes":6,)"
           R"("content_length":null,"is_at_snap_point":false})"},
      {{Status::error{{CustomError::timeout{}}}},
       "error" + same +
           R"(,"custom_error":"timeout","text":"The request timed out","final":true})"}};
  for (const auto& [status, text] : cases)
    EXPECT_EQ(at(status), R"({"event":")" + text);
  EXPECT_EQ(event_line({Status::success{}}, "a\"b", "\xFF\n\x1B"),
            "{\"event\":\"success\",\"url\":\"a\\\"b\",\"dest_file\":\"\xEF\xBF\xBD??\"}");
}

TEST(ProcessLock, keeps_a_second_one_out_while_it_lives) {
  const TempDir dir;
  {
    const ProcessLock first(dir / "movie.mkv");
    EXPECT_FALSE(first.held_by_another());
    EXPECT_TRUE(ProcessLock(dir / "movie.mp4").held_by_another()) << "they share a record";
    EXPECT_TRUE(ProcessLock(dir / "movie.mkv").held_by_another()) << "the refused one freed it";
    EXPECT_FALSE(ProcessLock(dir / "other.mkv").held_by_another());
  }
  EXPECT_TRUE(fs::is_empty(dir.path()));
  fs::create_symlink(dir / "elsewhere", dir / ".planted.lgresume.lock");
  EXPECT_FALSE(ProcessLock(dir / "planted").held_by_another());
  EXPECT_FALSE(fs::exists(dir / "elsewhere"));
  EXPECT_FALSE(ProcessLock("/nowhere/file").held_by_another());
}

TEST(Sha256, is_that_of_the_content) {
  const TempDir dir;
  EXPECT_EQ(sha256_of(dir.write("abc", "abc")),
            "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
  EXPECT_EQ(sha256_of(dir.write("million", std::string(1'000'000, 'a'))),
            "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0");
  EXPECT_THROW(sha256_of(dir / "nowhere"), std::system_error);
  EXPECT_THROW(sha256_of(dir.path()), std::system_error);
}

} // namespace
} // namespace test
