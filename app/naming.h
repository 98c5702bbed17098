#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace ravelin::app {

/// Adds "http://" if `link` has no scheme, and encodes spaces.
std::string complete_link(std::string link);

/// The file name if neither the link nor the server has one.
inline constexpr const char* no_name = "download";

/// The link for output: printable and without its password.
std::string shown_link(const std::string& link);

/// "12.3 MiB".
std::string human_size(std::int64_t bytes);

/// Converts texts such as "10k" and "1.5M" to bytes; K, M and G are powers of 1024. None if
/// invalid.
std::optional<std::int64_t> parse_size(const std::string& text);

/// "12:34", with hours from an hour on.
std::string human_time(std::chrono::seconds time);

/// " in 4.2 s (2.9 MiB/s)".
std::string describe_average(std::int64_t bytes, std::chrono::duration<double> time);

} // namespace ravelin::app
