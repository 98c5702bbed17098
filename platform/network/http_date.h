#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace ravelin::platform {

/// Parses an HTTP date such as "Tue, 10 Nov 2026 08:12:55 GMT".
std::optional<std::chrono::sys_seconds> parse_http_date(const std::string& text);

/// The wait that a "Retry-After" value asks for, in seconds or until a date. Seconds are limited to
/// a year, so that adding them to a time does not overflow.
std::optional<std::chrono::seconds> parse_retry_after(const std::string& text);

} // namespace ravelin::platform
