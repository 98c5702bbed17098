#include "bramblekit/errors.h"
#include "ravelin/response.h"
#include "src/LinkIdentity.h"
#include "src/PartSchedule.h"
#include "src/PartialDataOpr.h"
#include "src/RetryPolicy.h"
#include "src/SuggestedName.h"
#include "tests/harness/patterns.h"
#include "tests/harness/temp_dir.h"

#include <gtest/gtest.h>

// Decisions that need neither a server nor a disk.

namespace test {
namespace {
using namespace ravelin;
using namespace std::chrono_literals;
using bramblekit::to_error;

const std::string x196(196, 'x'), x200 = x196 + "xxxx";

TEST(SuggestedName, is_safe_whatever_the_link_says) {
  const auto name = [](const auto& link) {
    return suggested_name(URL("http://" + link)).value_or("none");
  };
  expect(name, {"h -> none", "h/a/ -> none", "h/.. -> none", " -> none", "h/%2e%2E -> none",
                "h/. -> none", "h/a/m.mkv?x=/y -> m.mkv", "h/m.mkv#/z -> m.mkv", "h/100% -> 100%",
                "h/%2e.%2Fa -> .._a", "h/a%00b%0Ac%7F -> a_b_c_", "h/-rf -> _rf",
                "h/%C3%A4\xFE -> \u00E4\uFFFD", "h/a%E2%80%AEb%C2%9B -> a_b_"});
  expect(name, {"h/" + x200 + "x -> " + x200, "h/" + x200 + "x.mkv -> " + x196 + ".mkv",
                "h/x." + x200 + " -> x." + x196 + "xx",
                "h/" + x196 + "\u20AC\u20AC.mkv -> " + x196 + ".mkv"});
}

TEST(SuggestedName, is_safe_whatever_a_content_disposition_says) {
  const auto name = [](const auto& field) {
    return name_from_disposition("attachment; filename" + field).value_or("none");
  };
  expect(name, {"=\"movie.mkv\" -> movie.mkv", " = movie.mkv ; size=1 -> movie.mkv",
                "=a b.txt -> a b.txt", "x; x=\"; filename=no\"; FileName=yes -> yes",
                "=a; filename=b -> a", "=\"a\\\"b\\\\c.txt\" -> c.txt",
                "=\"a \\\"b\\\" c;d.txt\" -> a \"b\" c;d.txt", "=\"\u00E4\" -> \u00E4",
                "=\"../../etc/passwd\" -> passwd", "=\"C:\\dir\\file.txt\" -> file.txt",
                "=.bashrc -> _bashrc", "=-rf -> _rf"});
  expect(name, {"=a; filename*=UTF-8''%C3%AF%20%e2%82%ac -> \u00EF \u20AC",
                "*=utf-8'en'b; filename=a -> b", "=a; filename*=ISO-8859-1''%E4 -> a",
                "=a; filename*=UTF-8''%E4 -> a", "=a; filename*=UTF-8''.. -> a",
                "=a; filename*=b -> a", "*=UTF-8''..%2F%2e%2e%5Cx -> x",
                "*=UTF-8''a%00b%0Ac%7F -> a_b_c_", "=\"a\\ -> none", "=\"..\" -> none",
                "=a/ -> none", "= -> none", " -> none", "*=\" -> none", "=;;*=\" -> none"});
}

TEST(LinkIdentity, tells_links_apart_but_not_by_their_secrets) {
  const TempDir dir;
  const auto file = URL::file(dir.write("file", ""));
  using Origin = RavelinOperation::Origin;
  EXPECT_EQ(origin_of(file, URL("http://h/a")), Origin::unknown);
  note_origin(file, URL("http://user:pass@h/a?token=1#x"));
  EXPECT_EQ(origin_of(file, URL("http://h/a?token=1")), Origin::same_link);
  EXPECT_EQ(origin_of(file, URL("http://h/a?token=2")), Origin::same_path);
  EXPECT_EQ(origin_of(file, URL("http://h/b?token=1")), Origin::other_link);
  EXPECT_EQ(origin_of(file, URL("http://g/a?token=1")), Origin::other_link);
}

Error refused(int status, bool asked_for_range, std::optional<int> retry_after = {}) {
  URLLoadingError error(URLError::bad_server_response, "");
  error.refusal =
      status == 200 ? URLLoadingError::Refusal::range : URLLoadingError::Refusal::http_status;
  error.http_status = status;
  error.asked_for_range = asked_for_range;
  if (retry_after)
    error.retry_after = std::chrono::seconds(*retry_after);
  return to_error(error);
}

Error failed(URLError code) {
  return to_error(URLLoadingError(code, ""));
}

// Of a header, where one before offered ranges.
Error without_ranges() {
  RetryPolicy policy({2});
  policy.note_ranges(true);
  policy.note_ranges(false); // nothing has come, and nothing would be lost
  policy.judge(make_custom_error(failed(URLError::timed_out)), 10, true);
  try {
    policy.note_ranges(false);
  } catch (...) {
    const auto error = Error::current();
    EXPECT_EQ(policy.judge(make_custom_error(error), 10, true), Remedy::try_again);
    policy.note_ranges(false); // the last attempt
    return error;
  }
  throw std::logic_error("it is no error");
}

constexpr auto again = Remedy::try_again, whole = Remedy::try_in_one_piece, stop = Remedy::give_up;

TEST(RetryPolicy, tells_errors_that_may_pass_from_those_that_stay) {
  const struct {
    const char* name;
    Error error;
    Remedy at_first;   // of a split download of which nothing has come
    Remedy with_bytes; // of which something has come
    Remedy unsplit;
  } cases[] = {{"time-out", failed(URLError::timed_out), again, again, again},
               {"lost", failed(URLError::network_connection_lost), again, again, again},
               {"offline", failed(URLError::not_connected_to_internet), stop, again, stop},
               {"refused", failed(URLError::cannot_connect_to_host), stop, again, stop},
               {"certificate", failed(URLError::server_certificate_untrusted), stop, stop, stop},
               {"disk", to_error(std::system_error(EIO, std::system_category())), stop, stop, stop},
               {"404", refused(404, false), stop, stop, stop},
               {"408", refused(408, false), again, again, again},
               {"429", refused(429, false), again, again, again},
               {"500", refused(500, false), again, again, again},
               {"503, part", refused(503, true), again, again, again},
               {"403, part", refused(403, true), whole, again, stop},
               {"no ranges", without_ranges(), stop, again, stop},
               {"wrong range", refused(200, true), whole, whole, stop}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    const auto error = make_custom_error(c.error);
    EXPECT_EQ(RetryPolicy({5}).judge(error, 0, true), c.at_first);
    EXPECT_EQ(RetryPolicy({5}).judge(error, 10, true), c.with_bytes);
    EXPECT_EQ(RetryPolicy({5}).judge(error, 0, false), c.unsplit);
    EXPECT_NE(RetryPolicy({0}).judge(error, 10, true), again);
  }
}

TEST(RetryPolicy, waits_longer_each_time_and_is_patient_once_bytes_have_come) {
  const auto lost = make_custom_error(failed(URLError::network_connection_lost));
  const auto away = make_custom_error(failed(URLError::cannot_connect_to_host));
  const RetryPolicy::Clock::time_point start{};
  RetryPolicy policy({3, 60s});
  for (const auto upper : {500ms, 1000ms, 2000ms}) {
    EXPECT_EQ(policy.judge(lost, 10, true, start), again);
    EXPECT_TRUE(policy.wait() <= upper && policy.wait() >= upper / 2);
  }
  EXPECT_TRUE(policy.describe_retry().ends_with("s (3 of 3)"));
  EXPECT_EQ(policy.judge(lost, 10, true, start + 1s), stop);
  EXPECT_EQ(policy.judge(away, 10, true, start + 59s), again) << "by patience";
  EXPECT_EQ(policy.judge(away, 10, true, start + 60s), stop);
  EXPECT_EQ(policy.judge(make_custom_error(refused(403, true)), 10, true, start), whole);
  EXPECT_EQ(policy.judge(lost, 11, true, start + 60s), again) << "there was progress";
  EXPECT_TRUE(policy.describe_retry().ends_with("s (1 of 3)"));
  RetryPolicy asked({3, 60s});
  asked.judge(make_custom_error(refused(503, false, 7)), 0, false);
  EXPECT_EQ(asked.wait(), 7s);
  asked.judge(make_custom_error(refused(503, false, 1'000'000)), 0, false);
  EXPECT_EQ(asked.wait(), 300s);
  RetryPolicy from_zero({1, 60s});
  EXPECT_EQ(from_zero.judge(lost, 10, false, start), again);
  EXPECT_EQ(from_zero.judge(away, 0, false, start + 59s), again);
  RetryPolicy nothing_came({1, 60s});
  EXPECT_EQ(nothing_came.judge(lost, 0, true, start), again);
  EXPECT_EQ(nothing_came.judge(lost, 0, true, start), stop);
}

TEST(PartSchedule, finds_the_one_connection_that_is_slow) {
  Options options;
  options.retry = Retry{.max_attempts = 1, .patience = 0ms, .max_range_restarts = 1};
  PartSchedule parts(options);
  auto now = PartSchedule::Clock::now();
  const auto request = std::make_shared<PartialDataOpr>();
  for (int part = 0; part < 5; ++part)
    parts.has_started(part, request);
  int taken_after = 0;
  for (int second = 1; second <= 30; ++second) {
    now += 1001ms;
    for (int part = 0; part < 5; ++part)
      parts.has_received(part, part == 3 && second > 5 ? 20 : 100);
    if (parts.take_slow(now) && taken_after == 0)
      taken_after = second;
    EXPECT_FALSE(parts.is_given_up(2));
  }
  EXPECT_EQ(taken_after, 16) << "ten seconds after the first look that found it slow";
  EXPECT_TRUE(parts.has_ended(3)) << "given up";
  EXPECT_FALSE(parts.may_replace(3)) << "once was enough";
  EXPECT_TRUE(parts.may_replace(2));
}

} // namespace
} // namespace test
