#include "platform/fatal.h"

#include <cstdio>
#include <cstdlib>

namespace ravelin::platform {

void fatal(std::string_view what, SourceLocation where) {
  std::fprintf(stderr, "ravelin: %.*s (%s, line %u)\n", static_cast<int>(what.size()), what.data(),
               where.function, where.line);
  std::abort();
}

std::int64_t checked_add(std::int64_t a, std::int64_t b, SourceLocation where) {
  std::int64_t result = 0;
  if (__builtin_add_overflow(a, b, &result))
    fatal("byte count overflow", where);
  return result;
}

std::int64_t checked_subtract(std::int64_t a, std::int64_t b, SourceLocation where) {
  std::int64_t result = 0;
  if (__builtin_sub_overflow(a, b, &result))
    fatal("byte count overflow", where);
  return result;
}

std::int64_t checked_multiply(std::int64_t a, std::int64_t b, SourceLocation where) {
  std::int64_t result = 0;
  if (__builtin_mul_overflow(a, b, &result))
    fatal("byte count overflow", where);
  return result;
}

} // namespace ravelin::platform
