#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ravelin::app {

/// `link` with "http://" before it where it has no scheme.
std::string with_scheme(std::string link);

/// What a file is called whose link suggests no name.
inline constexpr const char* no_name = "download";

/// The file name that a link suggests: the last part of its path, decoded. Never one that leads
/// out of the directory; `no_name` where the link suggests nothing usable.
std::string name_from_link(std::string_view link);

/// `text` for a terminal or a line of JSON: valid UTF-8 without control characters.
std::string printable(std::string_view text);

/// `name` as the name of a file in any directory: short, without slashes and control characters.
/// Nothing for "", "." and "..".
std::optional<std::string> usable_name(std::string name);

/// "12.3 MiB".
std::string human_size(std::int64_t bytes);

} // namespace ravelin::app
