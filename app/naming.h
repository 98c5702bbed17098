#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace app {

/// `link` with "http://" before it where it has no scheme.
std::string with_scheme(std::string link);

/// The file name that a link suggests: the last part of its path, decoded. Never one that leads
/// out of the directory; "download" where the link suggests nothing usable.
std::string name_from_link(std::string_view link);

/// `text` for a terminal or a line of JSON: valid UTF-8 without control characters.
std::string printable(std::string_view text);

/// "12.3 MiB".
std::string human_size(std::int64_t bytes);

} // namespace app
