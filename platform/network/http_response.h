#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace ravelin::platform {

using HeaderFields = std::map<std::string, std::string>;

/// The head of an answer. `status` is 0 where the answer is not one of HTTP.
struct URLResponse {
  bool is_http = false;
  int status = 0;
  /// Names as the server wrote them; the values of repeated fields joined by ", ".
  HeaderFields header_fields;
};

/// Collects the header lines of a chain of answers, and keeps those of the last one.
class HeaderCollector {
public:
  enum class Line { more, interim_end, redirect_end, final_end, too_large };
  /// One line as it came, with its line end.
  Line add(std::string_view line);
  const URLResponse& response() const { return response_; }
  /// Whether the last answer leads to a scheme that is neither http nor https.
  bool redirects_out_of_the_web() const;

private:
  void add_field(std::string_view line);

  URLResponse response_;
  std::size_t size_ = 0; // bytes of all answers together
  bool in_head_ = false;
  bool last_was_redirect_ = false;
};

/// The value of the field `name`, whatever its letter case; null if there is none.
const std::string* find_field(const HeaderFields& fields, std::string_view name);

/// "bytes 0-99/1000"; the total is absent where the server wrote "*".
struct ContentRange {
  std::int64_t start = 0;
  std::int64_t end = 0; // inclusive
  std::optional<std::int64_t> total;
  friend bool operator==(const ContentRange&, const ContentRange&) = default;
};
std::optional<ContentRange> parse_content_range(std::string_view value);

} // namespace ravelin::platform
