#include "bramblekit/main_thread.h"
#include "src/FileProcessor.h"
#include "src/SnapRule.h"
#include "tests/src/transfer_fixture.h"

#include <limits>

// What works without a network: the flags, the record, its names and numbers.

namespace test {
namespace {

constexpr auto smallest = std::numeric_limits<std::int64_t>::min();
constexpr auto largest = std::numeric_limits<std::int64_t>::max();

std::string render(const ResumeData& record) {
  std::string text = record.is_splitted ? "split" : "whole";
  text += record.content_length ? " of " + std::to_string(*record.content_length) : "";
  for (const auto& part : record.parts)
    text += " " + std::to_string(part->begin_pos) + "+" +
            std::to_string(part->total_bytes_expected) +
            (part->curr_bytes ? ":" + std::to_string(part->curr_bytes) : "");
  return text;
}

TEST(LGOperationTest, keeps_two_flags_that_any_thread_may_use) {
  const struct {
    std::string_view calls; // a: activate, c: cancel, f: free
    bool busy = false;
    bool cancelled = false;
  } cases[] = {{""},   {"a", true}, {"aa", true},        {"c", false, true}, {"ca", true, true},
               {"cf"}, {"acf"},     {"fc", false, true}, {"aca", true, true}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.calls);
    const auto play = [&] {
      struct Operation : LGOperation {
        using LGOperation::activate, LGOperation::free;
      };
      const auto opr = std::make_shared<Operation>();
      for (const char call : c.calls)
        call == 'a' ? opr->activate() : call == 'c' ? opr->cancel() : opr->free();
      EXPECT_EQ(opr->is_busy(), c.busy);
      EXPECT_EQ(opr->is_cancelled(), c.cancelled);
    };
    play();
    in_background(play);
    in_background([&] { ravelin::bramblekit::main_sync(play); });
  }
}

TEST(ResumeDataTest, divides_the_content) {
  const std::optional<std::int64_t> none;
  const struct {
    std::optional<std::int64_t> length;
    std::optional<std::int64_t> count;
    std::string expected;
  } cases[] = {{1003, 5, "split of 1003 0+200 200+200 400+200 600+200 800+203"},
               {3, 5, "split of 3 0+0 0+0 0+0 0+0 0+3"},
               {0, 5, "split of 0 0+0 0+0 0+0 0+0 0+0"},
               {7, 0, "split of 7"},
               {largest, 2,
                "split of 9223372036854775807 0+4611686018427387903 "
                "4611686018427387903+4611686018427387904"},
               {none, 5, "split 0+-1"},
               {none, none, "whole 0+-1"},
               {9, none, "whole of 9 0+9"}};
  RavelinOperation owner;
  FileProcessor processor(owner);
  processor.server_side_date = "now";
  for (const auto& c : cases) {
    SCOPED_TRACE(c.expected);
    processor.content_len = c.length;
    processor.split_count = c.count;
    const auto record = processor.create_new_resume_data();
    EXPECT_EQ(render(*record), c.expected);
    EXPECT_EQ(record->server_side_date, "now");
    const auto json = record->to_json();
    EXPECT_EQ(json.find("content_length") != json.npos, c.length.has_value());
    EXPECT_EQ(render(*ResumeData::instance(json)), c.expected);
  }
}

TEST(ResumeDataDeathTest, ends_the_process_over_impossible_numbers) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(split_into_parts(10, -1), "a negative number of parts");
  EXPECT_DEATH(split_into_parts(smallest, 2), "byte count overflow");
  ResumeData record;
  record.parts = split_into_parts(10, 2);
  record.parts[0]->curr_bytes = largest;
  record.parts[1]->curr_bytes = 1;
  EXPECT_DEATH(record.received_bytes(), "byte count overflow");
  RavelinOperation owner;
  EXPECT_DEATH(FileProcessor(owner).create_new_resume_data(), "needs the server's date");
  EXPECT_DEATH(FileProcessor(owner).setup(), "without a destination");
}

TEST(ResumeDataTest, has_fixed_keys_of_fixed_types) {
  const std::string json =
      R"({"server_side_date":"then","content_length":1003,"is_splitted":true,)"
      R"("parts":[{"begin_pos":0,"total_bytes_expected":1003,"curr_bytes":50}]})";
  EXPECT_EQ(ResumeData::instance(json)->to_json(), json);
  const auto with = [&](const std::string& from, const std::string& to) {
    auto text = json;
    return text.replace(text.find(from), from.size(), to);
  };
  const std::string whole = "split of 1003 0+1003:50";
  EXPECT_EQ(render(*ResumeData::instance(with("50}", "50,\"more\":{}} "))), whole);
  EXPECT_EQ(render(*ResumeData::instance(with("{\"ser", "{\"more\":[1],\"ser"))), whole);
  for (const auto& length : {with("\"content_length\":1003,", ""), with("1003,\"is", "null,\"is")})
    EXPECT_EQ(render(*ResumeData::instance(length)), "split 0+1003:50");
  const std::pair<const char*, const char*> refused[] = {{"1003,\"is", "1003.5,\"is"},
                                                         {"1003,\"is", "\"1003\",\"is"},
                                                         {"1003,\"is", "9223372036854775808,\"is"},
                                                         {"\"server_side_date\":\"then\",", ""},
                                                         {"\"then\"", "7"},
                                                         {"\"is_splitted\":true,", ""},
                                                         {"true", "1"},
                                                         {"parts", "part"},
                                                         {"[{", "[3,{"},
                                                         {"\"begin_pos\":0,", ""},
                                                         {"\"total_bytes_expected\":1003,", ""},
                                                         {",\"curr_bytes\":50", ""},
                                                         {":50", ":false"},
                                                         {":50", ":-9223372036854775809"}};
  for (const auto& [from, to] : refused)
    EXPECT_THROW(ResumeData::instance(with(from, to)), std::exception) << from << " -> " << to;
}

TEST(ResumeDataTest, lies_in_a_file_named_after_the_destination) {
  const std::pair<const char*, const char*> cases[] = {
      {"/x/movie.mp4", "/x/.movie.lgresume"},   {"/x/movie.mkv", "/x/.movie.lgresume"},
      {"/x/README", "/x/.README.lgresume"},     {"/x/a.tar.gz", "/x/.a.tar.lgresume"},
      {"/x/.profile", "/x/..profile.lgresume"}, {"a.bin", ".a.lgresume"},
      {"/x.y/b c", "/x.y/.b c.lgresume"}};
  for (const auto& [destination, expected] : cases)
    EXPECT_EQ(FileProcessor::prepare_resume_file_url(URL::file(destination)), URL::file(expected));
}

TEST(SnapRuleTest, marks_the_first_report_at_or_past_each_multiple) {
  const struct {
    float interval;
    std::vector<std::optional<float>> values;
    std::string marks;
    float due;
  } cases[] = {{0.1F, {0.05F, 0.12F, 0.25F, 0.26F, 1.0F}, "yyyny", 1.1F},
               {0.1F, {0.05F, 0.12F, 0.25F, 0.26F}, "yyyn", 0.3F},
               {0.1F, {0.0F, 0.0999F, 0.1F, 0.19F, 0.2F}, "ynyny", 0.3F},
               {0.1F, {std::nullopt, std::nullopt}, "nn", 0.0F},
               {0.1F, {1.0F, 1.0F, 1.2F}, "yyy", 1.3F},
               {0.25F, {0.1F, 0.2F, 0.5F, 0.6F, 0.74F}, "ynynn", 0.75F},
               {2.0F, {0.1F, 0.9F, 1.0F}, "yny", 2.0F}};
  for (const auto& c : cases) {
    SnapRule snap{false, 0.0F};
    std::string marks;
    for (const auto& value : c.values) {
      snap = snap_rule(value, snap.next, c.interval);
      marks += snap.is_at_snap_point ? 'y' : 'n';
    }
    EXPECT_EQ(marks, c.marks) << c.interval;
    EXPECT_NEAR(snap.next, c.due, 1e-5F) << c.marks;
  }
}

} // namespace
} // namespace test
