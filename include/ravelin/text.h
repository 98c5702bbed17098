#pragma once

#include <string>
#include <string_view>

namespace ravelin {

// Texts from servers, links and file names may contain any bytes. Any thread.

/// `text` as valid UTF-8; invalid bytes become U+FFFD.
[[gnu::visibility("default")]] std::string valid_utf8(std::string_view text);
/// `text` for a terminal or a log: valid UTF-8, with "?" for control characters and characters that
/// change the text direction.
[[gnu::visibility("default")]] std::string printable(std::string_view text);
/// `link` with its password, if any, replaced by "***".
[[gnu::visibility("default")]] std::string without_password(std::string_view link);

} // namespace ravelin
