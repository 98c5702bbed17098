#pragma once

#include <string>

namespace ravelin::app {

/// The number of terminal columns that `text` takes, colours aside.
std::size_t display_width(const std::string& text);

/// `text`, shortened with an ellipsis if it takes more than `columns`. It must have no colours.
/// What cannot be shown becomes "?".
std::string shortened(const std::string& text, std::size_t columns);

/// `text` shortened or padded to `columns`.
std::string fitted(const std::string& text, std::size_t columns);

} // namespace ravelin::app
