#pragma once

#include <chrono>
#include <optional>
#include <string>

namespace ravelin::platform {

/// The moment that an HTTP date such as "Tue, 10 Nov 2026 08:12:55 GMT" names.
std::optional<std::chrono::sys_seconds> parse_http_date(const std::string& text);

} // namespace ravelin::platform
