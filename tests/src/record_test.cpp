#include "ravelin/ravelin_operation.h"
#include "src/FileProcessor.h"
#include "src/HeaderValues.h"
#include "src/SnapRule.h"
#include "tests/harness/temp_dir.h"

#include <cmath>
#include <gtest/gtest.h>
#include <regex>

// What works without a network: the record, its names and numbers.

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
      {0.1F, {std::nullopt, 1.0F, 1.0F, 1.2F}, "nyyy"},
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

} // namespace
} // namespace ravelin
