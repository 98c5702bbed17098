#include "platform/network/http_date.h"

#include <curl/curl.h>

namespace ravelin::platform {

std::optional<std::chrono::sys_seconds> parse_http_date(const std::string& text) {
  const auto seconds = curl_getdate(text.c_str(), nullptr);
  if (seconds < 0)
    return std::nullopt;
  return std::chrono::sys_seconds(std::chrono::seconds(seconds));
}

} // namespace ravelin::platform
