#pragma once

#include <string_view>

namespace ravelin::app {

/// Puts /dev/null where the process was started without standard input, output or error, so that no
/// file or socket of ours gets such a number. First thing in `main`.
void fill_standard_descriptors();

/// Writes `text` to standard error. If nobody can read it, the work goes on all the same.
void tell(std::string_view text) noexcept;

/// Writes `line` and a line end to standard output, at once.
void print_line(std::string_view line) noexcept;

/// Whether all lines so far were taken. Where they were not, the first call says why, unless the
/// reader just went away.
bool all_was_printed() noexcept;

} // namespace ravelin::app
