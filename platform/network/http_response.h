#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace ravelin::platform {

/// Case-insensitive ASCII order.
struct LessIgnoringCase {
  bool operator()(std::string_view a, std::string_view b) const;
  using is_transparent = void;
};

/// Values by field name, looked up case-insensitively.
using HeaderFields = std::map<std::string, std::string, LessIgnoringCase>;

/// The header of a response. `status` is 0 if it is not an HTTP response.
struct URLResponse {
  bool is_http = false;
  int status = 0;
  /// Names as sent by the server; values of repeated fields are joined by ", ".
  HeaderFields header_fields;
  std::string url{}; // after redirects
};

/// The transfer coding if it is other than "chunked".
std::optional<std::string> unknown_coding(const URLResponse& response);

bool is_chunked(const URLResponse& response);

/// Whether the length of the content is told by a value that libcurl would misread.
bool has_unreadable_length(const URLResponse& response);

/// Parses the header lines of consecutive responses and keeps the last one.
class HeaderCollector {
public:
  enum class Line { more, interim_end, redirect_end, final_end, too_large };
  /// `line` includes its line ending.
  Line add(std::string_view line);
  const URLResponse& response() const { return response_; }
  bool is_in_header() const { return in_header_; }

private:
  void add_field(std::string_view line);

  URLResponse response_;
  std::size_t size_ = 0; // bytes of all responses together
  bool in_header_ = false;
  std::string* last_value_ = nullptr; // of the field that a folded line continues
};

bool equal_ignoring_case(std::string_view a, std::string_view b);

/// The value of the field `name`, in any letter case; null if there is none.
const std::string* find_field(const HeaderFields& fields, std::string_view name);

/// "bytes 0-99/1000"; no total if the server sent "*".
struct ContentRange {
  std::int64_t start = 0;
  std::int64_t end = 0; // inclusive
  std::optional<std::int64_t> total;
  friend bool operator==(const ContentRange&, const ContentRange&) = default;
};
std::optional<ContentRange> parse_content_range(std::string_view value);

} // namespace ravelin::platform
