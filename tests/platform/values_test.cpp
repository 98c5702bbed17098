#include "platform/fatal.h"
#include "ravelin/error.h"
#include "ravelin/url.h"

#include <gtest/gtest.h>
#include <set>

namespace ravelin::platform {
namespace {

namespace fs = std::filesystem;

TEST(URL, is_a_value_with_a_path_and_a_text) {
  const auto here = fs::current_path();
  const std::tuple<URL, fs::path, std::string> cases[] = {
      {URL(), "", ""},
      {URL("no link at all \n"), "", "no link at all \n"},
      {URL("https://a.org/b%20c?d#e"), "", "https://a.org/b%20c?d#e"},
      {URL("file:///tmp/a%20b%2Fc%zz%4"), "/tmp/a b/c%zz%4", "file:///tmp/a%20b%2Fc%zz%4"},
      {URL::file("/a b#?%.bin"), "/a b#?%.bin", "file:///a%20b%23%3F%25.bin"},
      {URL::file("/\xc3\xa4\xff\n"), "/\xc3\xa4\xff\n", "file:///%C3%A4%FF%0A"},
      {URL::file("/m.mkv"), "/m.mkv", "file:///m.mkv"},
      {URL::file("m.mkv"), "m.mkv", "file:///m.mkv"}};
  std::set<URL> different;
  for (const auto& [url, path, text] : cases) {
    SCOPED_TRACE(text);
    const auto hash = std::hash<URL>()(url);
    fs::current_path("/");
    EXPECT_EQ(path, url.path());
    EXPECT_EQ(text, url.text());
    EXPECT_TRUE(different.insert(url).second);
    EXPECT_EQ(hash, std::hash<URL>()(url)) << "in another directory a hashed key would be lost";
    fs::current_path(here);
  }
}

template <class E> Error thrown(E exception) {
  return Error(std::make_exception_ptr(exception));
}

TEST(Error, holds_any_exception_with_its_text_and_code) {
  const std::error_code offline = URLError::not_connected_to_internet;
  EXPECT_STREQ("NSURLErrorDomain", offline.category().name());
  const auto full = std::error_code(ENOSPC, std::system_category());
  const std::tuple<Error, std::string, std::error_code, int> cases[] = {
      {thrown(std::runtime_error("words")), "words", {}, 0},
      {thrown(std::system_error(full, "disk")), "disk: " + full.message(), full, ENOSPC},
      {thrown(URLLoadingError(URLError(-1009), "late")), "late", offline, -1009},
      {thrown(42), "an exception that is no std::exception", {}, 0}};
  for (const auto& [error, text, code, value] : cases) {
    SCOPED_TRACE(text);
    const Error copy = error; // NOLINT: the copy is what is tested
    EXPECT_EQ(text, copy.text());
    EXPECT_EQ(code, copy.code());
    EXPECT_EQ(value, copy.code().value());
    EXPECT_EQ(value != 0, copy.is<std::system_error>());
    EXPECT_EQ(error.get_if<std::exception>(), copy.get_if<std::exception>());
    EXPECT_ANY_THROW(copy.rethrow());
  }
  EXPECT_EQ(42, *std::get<0>(cases[3]).get_if<int>());
}

TEST(FatalDeathTest, ends_the_process_rather_than_count_wrong) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(fatal("the invariant"), "the invariant");
  EXPECT_DEATH(checked_add(INT64_MAX, 1), "overflow");
}

} // namespace
} // namespace ravelin::platform
