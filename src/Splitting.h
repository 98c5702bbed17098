#pragma once

#include "src/ResumeData.h"

#include <cstdint>
#include <memory>
#include <vector>

namespace ravelin {

/// Number of parts of a split download.
inline constexpr std::int64_t parts_when_split = 5;

/// `split_count` ranges that cover `length` bytes; the last one gets the remainder. Aborts on a
/// negative count and on overflow.
std::vector<std::shared_ptr<ResumeData::Part>> split_into_parts(std::int64_t length,
                                                                std::int64_t split_count);

} // namespace ravelin
