#pragma once

#include <string>
#include <string_view>

namespace ravelin::platform {

/// The length in bytes of the UTF-8 sequence at the start of `text`; 0 if it is not valid. `text`
/// must not be empty.
std::size_t sequence_length(std::string_view text);

/// Replaces control characters, line and paragraph separators, and characters that change the text
/// direction by `by`. `text` must be valid UTF-8.
std::string replace_controls(std::string_view text, char by);

} // namespace ravelin::platform
