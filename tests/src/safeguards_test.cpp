#include "src/Safeguards.h"

#include <gtest/gtest.h>

// What may be taken for the content of a download. "h", "r" and "c" stand for the three options:
// HTTP errors, exact ranges, changed content.

namespace ravelin {
namespace {

using Asked = std::optional<platform::BytesRange>;
using Expected = std::optional<ContentVersion>;

const Asked whole, part = platform::BytesRange{10, 19};
const std::string monday = "Mon, 09 Nov 2026 08:00:00 GMT";
const std::string tuesday = "Tue, 10 Nov 2026 08:00:00 GMT";

Safeguards with(const std::string& letters) {
  Options options;
  options.reject_http_errors = letters.find('h') != letters.npos;
  options.require_exact_ranges = letters.find('r') != letters.npos;
  options.reject_changed_content = letters.find('c') != letters.npos;
  return Safeguards(options);
}

std::string describe(const std::optional<Error>& error) {
  if (!error || error->code() == URLError::network_connection_lost)
    return error ? "lost" : "";
  constexpr const char* kinds[] = {"refused", "status", "range", "changed"};
  const auto& refused = *error->get_if<URLLoadingError>();
  return std::string(refused.asked_for_range ? "part " : "") +
         kinds[static_cast<int>(refused.refusal)];
}

TEST(SafeguardsTest, refuse_a_response) {
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
       {"r", 200, {{length, "-7"}}, whole, a, ""},
       {"r", 200, {{length, "7, 8"}}, whole, none, "refused"},
       {"r", 206, {}, whole, none, "range"},
       {"hr", 206, {{range, exact}, {length, "10"}}, part, a, ""},
       {"r", 206, {{range, exact}, {length, "11"}}, part, a, "part range"},
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
  const auto changed = with("c").refuse_response({true, 206, {{tag, "\"b\""}}}, part, a);
  EXPECT_NE(changed->text().find("its ETag was \"a\" and is now \"b\""), std::string::npos);
}

TEST(SafeguardsTest, refuse_a_body_of_the_wrong_length) {
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

TEST(SafeguardsTest, refuse_to_continue_with_other_content) {
  const std::tuple<std::string, std::optional<std::string>, ContentVersion, std::string> cases[] = {
      {monday, "a", {"a", monday, {}}, ""},
      {monday, "a", {"b", monday, {}}, "changed"},
      {monday, "a", {"a", tuesday, {}}, "changed"},
      {tuesday, "a", {"a", monday, {}}, ""},
      {monday, {}, {"b", {}, {}}, ""},
      {"no date", "a", {{}, tuesday, {}}, ""}};
  for (const auto& [begun, etag, current, refused] : cases) {
    EXPECT_EQ(describe(with("c").refuse_continuing(begun, etag, current)), refused) << begun;
    EXPECT_FALSE(with("hr").refuse_continuing(begun, etag, current));
  }
}

} // namespace
} // namespace ravelin
