#include "src/Splitting.h"

#include "platform/fatal.h"

namespace ravelin {

using platform::checked_add;
using platform::checked_multiply;
using platform::checked_subtract;

std::vector<std::shared_ptr<ResumeData::Part>> split_into_parts(std::int64_t length,
                                                                std::int64_t split_count) {
  if (split_count < 0)
    platform::fatal("a negative number of parts");
  std::vector<std::shared_ptr<ResumeData::Part>> parts;
  if (split_count == 0)
    return parts;
  const auto size = length / split_count;
  const auto remainder = checked_subtract(length, checked_multiply(size, split_count));
  for (std::int64_t i = 0; i < split_count; ++i) {
    const auto begin = checked_multiply(i, size);
    auto end = checked_subtract(checked_add(begin, size), 1);
    if (i == split_count - 1)
      end = checked_add(end, remainder);
    auto part = std::make_shared<ResumeData::Part>();
    part->begin_pos = begin;
    part->total_bytes_expected = checked_add(checked_subtract(end, begin), 1);
    parts.push_back(std::move(part));
  }
  return parts;
}

} // namespace ravelin
