#pragma once

#include <cstdint>
#include <source_location>
#include <string_view>

namespace platform {

/// Says on standard error what is broken and where, and ends the process with `std::abort`.
/// For broken invariants only.
[[noreturn]] void fatal(std::string_view what,
                        std::source_location where = std::source_location::current());

/// Signed 64-bit arithmetic that ends the process on overflow: a wrong byte offset would write
/// over somebody's data.
std::int64_t checked_add(std::int64_t a, std::int64_t b,
                         std::source_location where = std::source_location::current());
std::int64_t checked_subtract(std::int64_t a, std::int64_t b,
                              std::source_location where = std::source_location::current());
std::int64_t checked_multiply(std::int64_t a, std::int64_t b,
                              std::source_location where = std::source_location::current());

} // namespace platform
