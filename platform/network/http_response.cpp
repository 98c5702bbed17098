#include "platform/network/http_response.h"

#include "ravelin/text.h"

#include <algorithm>
#include <charconv>

namespace ravelin::platform {
namespace {

constexpr std::size_t max_header_bytes = 256 * 1024;

char lower(char c) {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}

std::string_view trimmed(std::string_view text) {
  constexpr std::string_view blanks = " \t\r\n";
  const auto begin = text.find_first_not_of(blanks);
  if (begin == std::string_view::npos)
    return {};
  return text.substr(begin, text.find_last_not_of(blanks) - begin + 1);
}

/// Fields of one value, which some servers or proxies send twice.
bool is_single(std::string_view name) {
  constexpr std::string_view names[] = {"Connection",     "Content-Disposition",
                                        "Content-Length", "Content-Range",
                                        "Content-Type",   "Date",
                                        "ETag",           "Last-Modified",
                                        "Location",       "Retry-After",
                                        "Server",         "Transfer-Encoding"};
  return std::ranges::any_of(names, [&](auto single) { return equal_ignoring_case(name, single); });
}

/// Header fields are ASCII or UTF-8; other bytes are taken as Latin-1, as in older HTTP.
std::string latin1_to_utf8(std::string_view latin) {
  if (valid_utf8(latin) == latin)
    return std::string(latin); // as most servers send it
  std::string text;
  for (const char c : latin) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      text += c;
    } else {
      text += static_cast<char>(0xC0 | (byte >> 6));
      text += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return text;
}

std::optional<std::int64_t> parse_digits(std::string_view text) {
  std::int64_t number = 0;
  const auto* const end = text.data() + text.size();
  const auto result = std::from_chars(text.data(), end, number);
  if (result.ec != std::errc() || result.ptr != end || text.empty() || text.front() == '-')
    return std::nullopt;
  return number;
}

} // namespace

bool equal_ignoring_case(std::string_view a, std::string_view b) {
  return std::ranges::equal(a, b, [](char x, char y) { return lower(x) == lower(y); });
}

bool LessIgnoringCase::operator()(std::string_view a, std::string_view b) const {
  return std::ranges::lexicographical_compare(a, b, {}, lower, lower);
}

const std::string* find_field(const HeaderFields& fields, std::string_view name) {
  const auto found = fields.find(name);
  return found == fields.end() ? nullptr : &found->second;
}

bool is_chunked(const URLResponse& response) {
  const auto* const coding = find_field(response.header_fields, "Transfer-Encoding");
  return coding && equal_ignoring_case(*coding, "chunked");
}

/// libcurl takes "5x" for 5, and the last of several lengths for the length.
bool has_unreadable_length(const URLResponse& response) {
  const auto* const length = find_field(response.header_fields, "Content-Length");
  return length && !parse_digits(*length) && !is_chunked(response);
}

std::optional<std::string> unknown_coding(const URLResponse& response) {
  const auto* const coding = find_field(response.header_fields, "Transfer-Encoding");
  if (!coding || equal_ignoring_case(*coding, "chunked") ||
      equal_ignoring_case(*coding, "identity"))
    return std::nullopt;
  return *coding;
}

HeaderCollector::Line HeaderCollector::add(std::string_view line) {
  size_ += line.size();
  if (size_ > max_header_bytes)
    return Line::too_large;
  constexpr std::string_view status_line = "HTTP/";
  if (!in_header_ && equal_ignoring_case(line.substr(0, status_line.size()), status_line)) {
    last_value_ = nullptr;
    response_ = {.is_http = true, .status = 0, .header_fields = {}, .url = {}};
    const auto blank = std::min(line.find(' '), line.size() - 1);
    const auto code = trimmed(line.substr(blank + 1)).substr(0, 3);
    std::from_chars(code.data(), code.data() + code.size(), response_.status);
    in_header_ = true;
    return Line::more;
  }
  if (!in_header_)
    return Line::more; // a trailer after a chunked body
  if (!trimmed(line).empty()) {
    if (line.front() != ' ' && line.front() != '\t')
      add_field(line);
    else if (last_value_) // the rest of a folded line
      last_value_->append(last_value_->empty() ? "" : " ").append(trimmed(latin1_to_utf8(line)));
    return Line::more;
  }
  in_header_ = false;
  const auto* const location = find_field(response_.header_fields, "Location");
  if (response_.status / 100 == 1)
    return Line::interim_end;
  const bool is_redirect = response_.status / 100 == 3 && location && !location->empty();
  return is_redirect ? Line::redirect_end : Line::final_end;
}

void HeaderCollector::add_field(std::string_view raw_line) {
  const auto text = latin1_to_utf8(raw_line);
  const std::string_view line = text;
  const auto colon = line.find(':');
  last_value_ = nullptr;
  if (colon == std::string_view::npos)
    return;
  const auto name = trimmed(line.substr(0, colon));
  const auto value = trimmed(line.substr(colon + 1));
  const auto [field, is_new] = response_.header_fields.try_emplace(std::string(name), value);
  if (!is_new && field->second == value && is_single(name))
    return;
  if (!is_new)
    field->second.append(", ").append(value);
  last_value_ = &field->second;
}

std::optional<ContentRange> parse_content_range(std::string_view value) {
  constexpr std::string_view unit = "bytes ";
  value = trimmed(value);
  const auto dash = value.find('-');
  const auto slash = value.find('/');
  if (value.size() < unit.size() || !equal_ignoring_case(value.substr(0, unit.size()), unit) ||
      dash == std::string_view::npos || slash == std::string_view::npos || slash < dash)
    return std::nullopt;
  const auto start = parse_digits(trimmed(value.substr(unit.size(), dash - unit.size())));
  const auto end = parse_digits(trimmed(value.substr(dash + 1, slash - dash - 1)));
  const auto total_text = trimmed(value.substr(slash + 1));
  const auto total = parse_digits(total_text);
  const bool beyond = end && total && *end >= *total;
  if (!start || !end || *end < *start || beyond || (!total && total_text != "*"))
    return std::nullopt;
  return ContentRange{*start, *end, total};
}

} // namespace ravelin::platform
