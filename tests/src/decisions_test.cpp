#include "ravelin/ravelin_operation.h"
#include "src/FileProcessor.h"
#include "src/HeaderValues.h"
#include "src/ResponseChecks.h"
#include "src/SnapRule.h"
#include "src/Splitting.h"
#include "tests/harness/temp_dir.h"

#include <cmath>
#include <gtest/gtest.h>
#include <regex>

// What is decided without a network: the record, its names and numbers, and what may be taken for
// the content of a download.

namespace ravelin {
namespace {

using OptionalNumber = std::optional<std::int64_t>;

// The values alone.
std::string render(const ResumeData& record) {
  return std::regex_replace(record.to_json(), std::regex("\"[a-z_]+\":"), "");
}

TEST(ResumeDataTest, divides_the_content) {
  const std::tuple<OptionalNumber, OptionalNumber, std::string> cases[] = {
      {1003, 5, "1003,true,[{0,200,0},{200,200,0},{400,200,0},{600,200,0},{800,203,0}]"},
      {3, 5, "3,true,[{0,0,0},{0,0,0},{0,0,0},{0,0,0},{0,3,0}]"},
      {7, 0, "7,true,[]"},
      {{}, 5, "true,[{0,-1,0}]"},
      {{}, {}, "false,[{0,-1,0}]"},
      {9, {}, "9,false,[{0,9,0}]"}};
  RavelinOperation owner;
  FileProcessor processor(owner);
  processor.server_side_date = "now";
  for (const auto& [length, count, expected] : cases) {
    processor.content_len = length;
    processor.split_count = count;
    const auto record = processor.create_new_resume_data();
    EXPECT_EQ(render(*record), "{\"now\"," + expected + "}");
    EXPECT_EQ(ResumeData::instance(record->to_json())->to_json(), record->to_json());
  }
}

TEST(ResumeDataTest, has_fixed_keys_of_which_one_is_optional) {
  const auto read = [](const std::string& key_to_replace) {
    const std::string json =
        R"({"server_side_date":"then","content_length":1003,"is_splitted":true,)"
        R"("parts":[{"begin_pos":0,"total_bytes_expected":1003,"curr_bytes":50}]})";
    return ResumeData::instance(std::regex_replace(json, std::regex(key_to_replace), "other"));
  };
  for (const auto* const key : {"server_side_date", "is_splitted", "parts", "begin_pos",
                                "total_bytes_expected", "curr_bytes"})
    EXPECT_THROW(read(key), std::exception) << key;
  EXPECT_EQ(render(*read("content_length")), R"({"then",true,[{0,1003,50}]})");
}

TEST(ResumeDataDeathTest, ends_the_process_over_impossible_numbers) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(split_into_parts(10, -1), "a negative number of parts");
  EXPECT_DEATH(split_into_parts(INT64_MIN, 2), "byte count overflow");
  ResumeData record;
  record.parts = split_into_parts(10, 2);
  for (const auto& part : record.parts)
    part->curr_bytes = INT64_MAX;
  EXPECT_DEATH(record.received_bytes(), "byte count overflow");
}

TEST(ResumeDataTest, lies_in_a_file_named_after_the_destination) {
  const std::pair<const char*, const char*> cases[] = {
      {"/x/movie.mp4", "/x/.movie.lgresume"},   {"/x/README", "/x/.README.lgresume"},
      {"/x/a.tar.gz", "/x/.a.tar.lgresume"},    {"a.bin", ".a.lgresume"},
      {"/x/.profile", "/x/..profile.lgresume"}, {"/x.y/b c", "/x.y/.b c.lgresume"}};
  for (const auto& [destination, expected] : cases)
    EXPECT_EQ(FileProcessor::prepare_resume_file_url(URL::file(destination)), URL::file(expected));
}

TEST(ResumeDataTest, tells_the_progress_of_a_destination) {
  const test::TempDir dir;
  ResumeData record;
  record.parts = split_into_parts(8, 2);
  record.parts[0]->curr_bytes = 1;
  record.parts[1]->curr_bytes = 2;
  const std::pair<OptionalNumber, std::optional<float>> cases[] = {
      {8, 0.375F}, {0, INFINITY}, {{}, {}}};
  for (const auto& [length, fraction] : cases) {
    record.content_length = length;
    dir.write(".a.lgresume", record.to_json());
    EXPECT_EQ(RavelinOperation::get_progress(URL::file(dir / "a.bin")),
              Progress(fraction, 3, false, length));
  }
  dir.write(".a.lgresume", "unreadable");
  EXPECT_EQ(RavelinOperation::get_progress(URL::file(dir / "a.bin")), Progress(0, 0, false));
}

TEST(SnapRuleTest, marks_the_first_report_at_or_past_each_multiple) {
  const std::tuple<float, std::vector<std::optional<float>>, std::string> cases[] = {
      {0.1F, {0.05F, 0.12F, 0.25F, 0.26F, 0.3F, 1.0F}, "yyynyy"},
      {0.1F, {0.0F, 0.0999F, 0.1F, 0.19F, 0.2F, 0.29F, 0.3F}, "ynynyny"},
      {0.1F, {std::nullopt, 0.0999F, 0.15F, 1.0F, 1.0F, 1.2F}, "nynyyy"},
      {0.25F, {0.1F, 0.2F, 0.5F, 0.6F, 0.74F, 0.75F}, "ynynny"},
      {2.0F, {0.1F, 0.9F, 1.0F}, "yny"}};
  for (const auto& [interval, values, expected] : cases) {
    SnapRule snap{false, 0.0F};
    std::string marks;
    for (const auto& value : values) {
      snap = snap_rule(value, snap.next, interval);
      marks += snap.is_at_snap_point ? 'y' : 'n';
    }
    EXPECT_EQ(marks, expected) << interval;
  }
}

TEST(HeaderValuesTest, are_whole_decimal_numbers) {
  const std::pair<const char*, OptionalNumber> cases[] = {
      {"7", 7},    {"+7", 7},  {"-7", -7}, {"007", 7},  {"9223372036854775807", INT64_MAX},
      {"", {}},    {"+", {}},  {"-", {}},  {"+-7", {}}, {"9223372036854775808", {}},
      {"++7", {}}, {" 7", {}}, {"7 ", {}}, {"7.0", {}}, {"0x7", {}}};
  for (const auto& [text, number] : cases)
    EXPECT_EQ(announced_length({{"content-LENGTH", text}}), number) << text;
}

using Asked = std::optional<platform::BytesRange>;
using Expected = std::optional<ContentVersion>;

const Asked whole, part = platform::BytesRange{10, 19};
const std::string monday = "Mon, 09 Nov 2026 08:00:00 GMT";
const std::string tuesday = "Tue, 10 Nov 2026 08:00:00 GMT";

// The options by a letter each: HTTP errors, exact ranges, changed content.
ResponseChecks with(const std::string& letters) {
  Options options;
  options.reject_http_errors = letters.find('h') != letters.npos;
  options.require_exact_ranges = letters.find('r') != letters.npos;
  options.reject_changed_content = letters.find('c') != letters.npos;
  return ResponseChecks(options);
}

std::string describe(const std::optional<Error>& error) {
  if (!error || error->code() == URLError::network_connection_lost)
    return error ? "lost" : "";
  constexpr const char* kinds[] = {"refused", "status", "range", "changed"};
  const auto& refused = *error->get_if<URLLoadingError>();
  return std::string(refused.asked_for_range ? "part " : "") +
         kinds[static_cast<int>(refused.refusal)];
}

TEST(ResponseChecksTest, refuse_a_response) {
  const std::string range = "Content-Range", length = "Content-Length", exact = "bytes 10-19/20";
  const std::string modified = "Last-Modified", tag = "etag";
  const Expected none, a = ContentVersion{"\"a\"", monday, 20},
                       dated = ContentVersion{{}, monday, {}};
  const std::tuple<std::string, int, platform::HeaderFields, Asked, Expected, std::string> cases[] =
      {{"", 404, {{length, "1, 2"}}, part, a, ""},
       {"rc", 404, {}, whole, none, ""},
       {"h", 204, {}, whole, none, "status"},
       {"h", 205, {}, whole, none, "status"},
       {"h", 302, {}, whole, none, "status"},
       {"hrc", 416, {}, part, none, "part status"},
       {"hc", 206, {}, whole, none, ""},
       {"hc", 200, {}, part, none, ""},
       {"hr", 200, {{length, "20"}}, whole, a, ""},
       {"r", 200, {{length, "21"}}, whole, a, "changed"},
       {"hc", 200, {{length, "-7"}}, whole, a, ""},
       {"r", 200, {{length, "-7"}}, whole, none, "refused"},
       {"r", 200, {{length, "20x"}}, whole, a, "refused"},
       {"r", 200, {{length, ""}}, whole, a, "refused"},
       {"r", 200, {{length, "20x"}, {"transfer-encoding", "Chunked"}}, whole, a, ""},
       {"hr", 503, {{length, "x"}}, whole, none, "status"},
       {"r", 200, {{length, "7, 8"}}, whole, none, "refused"},
       {"r", 206, {}, whole, none, "range"},
       {"hr", 206, {{range, exact}, {length, "10"}}, part, a, ""},
       {"r", 206, {{range, exact}, {length, "11"}}, part, a, "part range"},
       {"r", 206, {{range, exact}, {length, "10x"}}, part, a, "part range"},
       {"r", 206, {{range, "bytes 11-19/20"}}, part, a, "part range"},
       {"r", 206, {{range, "bytes 10-18/20"}}, part, a, "part range"},
       {"r", 206, {{range, "nonsense"}}, part, a, "part range"},
       {"r", 206, {}, part, a, "part range"},
       {"r", 200, {{range, exact}}, part, a, "part range"},
       {"r", 206, {{range, "bytes 10-19/21"}}, part, a, "changed"},
       {"h", 206, {{range, "bytes 10-19/21"}}, part, a, ""},
       {"r", 206, {{range, exact}, {tag, "\"b\""}}, part, a, ""},
       {"c", 206, {{range, exact}, {tag, "\"b\""}}, part, a, "changed"},
       {"c", 206, {{range, exact}, {tag, "W/\"b\""}, {modified, monday}}, part, a, ""},
       {"c", 206, {{range, exact}, {tag, "\"a\""}, {modified, tuesday}}, part, a, ""},
       {"c", 206, {{tag, "\"a\""}, {modified, tuesday}}, part, dated, "changed"}};
  for (const auto& [options, status, fields, asked, expected, refused] : cases) {
    const auto guards = with(options);
    const platform::URLResponse response{true, status, fields};
    EXPECT_EQ(describe(guards.refuse_response(response, asked, expected)), refused)
        << options << " " << status << " instead of: " << refused;
    EXPECT_TRUE(asked || expected || describe(guards.refuse_header(response)) == refused);
  }
  const auto busy = with("h").refuse_header({true, 503, {{"retry-after", "120"}}});
  EXPECT_EQ(busy->get_if<URLLoadingError>()->http_status, 503);
  EXPECT_EQ(busy->get_if<URLLoadingError>()->retry_after, std::chrono::seconds(120));
  const auto other_etag = [&](int with_status, const platform::HeaderFields& fields) {
    return describe(ResponseChecks::refuse_other_etag({true, with_status, fields}, "\"a\""));
  };
  EXPECT_EQ(other_etag(206, {{tag, "\"a\""}}) + other_etag(416, {}), "");
  EXPECT_EQ(other_etag(206, {}) + other_etag(200, {{tag, "W/\"a\""}}), "changedchanged");
  const auto changed = with("c").refuse_response({true, 206, {{tag, "\"b\""}}}, part, a);
  EXPECT_NE(changed->text().find("its ETag was \"a\" and is now \"b\""), std::string::npos);
}

TEST(ResponseChecksTest, refuse_a_body_of_the_wrong_length) {
  const Expected twenty = ContentVersion{{}, {}, 20}, unknown = ContentVersion{};
  const std::tuple<std::string, Asked, Expected, std::int64_t, std::string, std::string> cases[] = {
      {"r", part, twenty, 10, "lost", "part range"},
      {"r", whole, twenty, 20, "lost", "refused"},
      {"r", whole, unknown, 20, "", ""},
      {"r", whole, std::nullopt, 20, "", ""},
      {"hc", part, twenty, 10, "", ""}};
  for (const auto& [options, asked, expected, right, less, more] : cases) {
    const auto guards = with(options);
    EXPECT_EQ(describe(guards.refuse_length(right - 1, asked, expected)), less);
    EXPECT_FALSE(guards.refuse_length(right, asked, expected));
    EXPECT_EQ(describe(guards.refuse_length(right + 1, asked, expected)), more);
    EXPECT_FALSE(guards.refuse_excess(right, asked, expected));
    EXPECT_EQ(describe(guards.refuse_excess(right + 1, asked, expected)), more);
  }
}

TEST(ResponseChecksTest, refuse_to_continue_with_other_content) {
  const std::tuple<ContentVersion, ContentVersion, std::string, bool> cases[] = {
      {{"a", {}, {}, monday}, {"a", monday, {}}, "", true},
      {{"a", {}, {}, monday}, {"b", monday, {}}, "changed", false},
      {{"a", {}, {}, monday}, {"a", tuesday, {}}, "changed", true},
      {{"a", {}, {}, tuesday}, {"a", monday, {}}, "", true},
      {{{}, {}, 20, monday}, {"b", {}, 20}, "", false},
      {{"a", {}, {}, "no date"}, {{}, tuesday, {}}, "", false},
      {{"a", monday, 20, tuesday}, {{}, monday, 20}, "", true},
      {{"a", monday, 20, tuesday}, {{}, monday, {}}, "", false},
      {{{}, monday, 20, monday}, {{}, monday, 20}, "", false},
      {{{}, tuesday, 20, tuesday}, {{}, monday, 20}, "changed", false},
      {{"a", monday, 20, tuesday}, {"a", monday, 21}, "changed", false}};
  for (const auto& [known, current, refused, shown_equal] : cases) {
    SCOPED_TRACE(&known - &std::get<0>(cases[0]));
    EXPECT_EQ(describe(with("c").refuse_continuing(known, current)), refused);
    EXPECT_FALSE(with("hr").refuse_continuing(known, current));
    EXPECT_EQ(is_shown_equal(known, current), shown_equal);
  }
}

} // namespace
} // namespace ravelin
