#pragma once

#include <cstdint>
#include <string_view>

namespace ravelin::platform {

/// Where a call is in the source code; use `here()` as a default argument.
struct SourceLocation {
  const char* function;
  unsigned line;
  static constexpr SourceLocation here(const char* function = __builtin_FUNCTION(),
                                       unsigned line = __builtin_LINE()) {
    return {function, line};
  }
};

/// Prints what is broken and where to standard error, then aborts. For broken invariants only.
[[noreturn]] void fatal(std::string_view what, SourceLocation where = SourceLocation::here());

/// Signed 64-bit arithmetic that aborts on overflow: a wrong offset would overwrite good data.
std::int64_t checked_add(std::int64_t a, std::int64_t b,
                         SourceLocation where = SourceLocation::here());
std::int64_t checked_subtract(std::int64_t a, std::int64_t b,
                              SourceLocation where = SourceLocation::here());
std::int64_t checked_multiply(std::int64_t a, std::int64_t b,
                              SourceLocation where = SourceLocation::here());

} // namespace ravelin::platform
