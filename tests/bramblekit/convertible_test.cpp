#include "bramblekit/convertible.h"

#include <cstdint>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vector>

namespace ravelin::bramblekit {
namespace {

struct Sample : Convertible<Sample> {
  std::string name;
  std::int64_t count = 0;
  std::optional<std::int64_t> limit;
  bool on = false;
  std::vector<std::int64_t> list;

  void encode(KeyedEncoder& to) const {
    to.put("name", name);
    to.put("limit", limit);
    to.put_list("list", list.size(), [&](auto i, auto& each) { each.put("value", list[i]); });
  }
  void decode(const KeyedDecoder& from) {
    from.get("name", name);
    from.get("count", count);
    from.get("limit", limit);
    from.get("on", on);
    from.get_list("list", [&](const auto& each) { each.get("value", list.emplace_back()); });
  }
};

template <class... Text> void expect_refused(const Text&... texts) {
  for (const auto& text : {texts...})
    EXPECT_THROW(Sample::instance(text), std::exception) << text;
}

TEST(Convertible, takes_equivalent_json_and_refuses_everything_else) {
  const std::string rest = R"(,"on":false,"list":[],"more":{"a":[1,null]}})";
  const auto text = [](const std::string& count, const std::string& more = "") {
    return R"({"name":"a","count":)" + count + more;
  };
  for (const auto& good :
       {R"( {"count" : 1, "name":"\u00e4")" + rest, text("1", R"(,"limit":null)") + rest,
        text("-9223372036854775808", R"(,"limit":9223372036854775807)") + rest})
    EXPECT_NO_THROW(Sample::instance(good)) << good;
  expect_refused(
      text("1"), text("1", rest) + "}", text("1", rest) + '\0', R"({"name":"a")" + rest,
      R"({"count":1)" + rest, R"({"Name":"a","count":1)" + rest, R"({"name":null,"count":1)" + rest,
      R"({"name":1,"count":1)" + rest, text("\"1\"", rest), text("1.0", rest), text("true", rest),
      text("1e999", rest), text("9223372036854775808", rest), text("-9223372036854775809", rest),
      text("1", R"(,"limit":18446744073709551615)") + rest, text("1", R"(,"limit":"1")") + rest,
      "{\"name\":\"\xff\",\"count\":1" + rest, text("1", R"(,"on":1,"list":[]})"),
      text("1", R"(,"on":true,"list":{}})"), text("1", R"(,"on":true,"list":[1]})"),
      text("1", R"(,"on":true,"list":[{}]})"), std::string(), std::string("[]"));
  Sample sample;
  sample.list = {INT64_MIN};
  EXPECT_EQ(R"({"name":"","list":[{"value":-9223372036854775808}]})", sample.to_json());
  sample.name = "\xff"; // no UTF-8
  EXPECT_THROW(sample.to_json(), std::exception);
}

TEST(ConvertibleDeathTest, survives_text_that_is_nested_deeply) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const auto deep = std::string(200'000, '[') + std::string(200'000, ']');
  const auto read = [&](const std::string& more) {
    try {
      Sample::instance(R"({"name":"a","count":1,"on":true,)" + more + "}");
    } catch (const std::exception&) {
    }
    _exit(0);
  };
  EXPECT_EXIT(read(R"("more":)" + deep + R"(,"list":[])"), testing::ExitedWithCode(0), "");
  EXPECT_EXIT(read(R"("list":[{"value":)" + deep + "}]"), testing::ExitedWithCode(0), "");
}

} // namespace
} // namespace ravelin::bramblekit
