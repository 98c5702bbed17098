#include "platform/network/http_date.h"

#include <algorithm>
#include <charconv>
#include <curl/curl.h>

namespace ravelin::platform {

std::optional<std::chrono::sys_seconds> parse_http_date(const std::string& text) {
  const auto seconds = curl_getdate(text.c_str(), nullptr);
  if (seconds < 0)
    return std::nullopt;
  return std::chrono::sys_seconds(std::chrono::seconds(seconds));
}

std::optional<std::chrono::seconds> parse_retry_after(const std::string& text) {
  std::int64_t seconds = 0;
  const auto* const end = text.data() + text.size();
  const auto parsed = std::from_chars(text.data(), end, seconds);
  constexpr std::int64_t max_seconds = 366L * 24 * 60 * 60;
  const bool is_out_of_range = parsed.ec == std::errc::result_out_of_range && text[0] != '-';
  if (parsed.ptr == end && (is_out_of_range || (parsed.ec == std::errc() && seconds >= 0)))
    return std::chrono::seconds(is_out_of_range ? max_seconds : std::min(seconds, max_seconds));
  const auto date = parse_http_date(text);
  const auto now = std::chrono::floor<std::chrono::seconds>(std::chrono::system_clock::now());
  if (!date || *date < now)
    return std::nullopt;
  return std::min(*date - now, std::chrono::seconds(max_seconds));
}

} // namespace ravelin::platform
