#pragma once

#include <string_view>
#include <system_error>

namespace ravelin::app {

/// Opens /dev/null for standard input, output or error if the process was started without them, so
/// that no other file or socket gets their numbers. Call it first in `main`.
void open_standard_descriptors();

/// Writes `text` to standard error. Failures are ignored.
void print_to_stderr(std::string_view text) noexcept;

/// Writes all bytes to standard output, and waits while its reader is slow. Returns the reason if
/// that fails. Any thread.
std::error_code write_to_stdout(std::string_view bytes) noexcept;

/// Writes `line` and a newline to standard output, and flushes it.
void print_line(std::string_view line) noexcept;

/// Whether all lines were written. If not, the first call prints the reason, unless the reader just
/// closed the pipe.
bool output_succeeded() noexcept;

} // namespace ravelin::app
