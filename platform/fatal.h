#pragma once

#include <cstdint>
#include <string_view>

namespace ravelin::platform {

/// Where a call stands in the source; a default argument fills it in.
struct Place {
  const char* function;
  unsigned line;
  static constexpr Place here(const char* function = __builtin_FUNCTION(),
                              unsigned line = __builtin_LINE()) {
    return {function, line};
  }
};

/// Says on standard error what is broken and where, and ends the process with `std::abort`.
/// For broken invariants only.
[[noreturn]] void fatal(std::string_view what, Place where = Place::here());

/// Signed 64-bit arithmetic that ends the process on overflow: a wrong byte offset would write
/// over somebody's data.
std::int64_t checked_add(std::int64_t a, std::int64_t b, Place where = Place::here());
std::int64_t checked_subtract(std::int64_t a, std::int64_t b, Place where = Place::here());
std::int64_t checked_multiply(std::int64_t a, std::int64_t b, Place where = Place::here());

} // namespace ravelin::platform
