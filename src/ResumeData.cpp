#include "src/ResumeData.h"

#include "platform/fatal.h"
#include "src/Splitting.h"

#include <algorithm>

namespace ravelin {

using bramblekit::KeyedDecoder;
using bramblekit::KeyedEncoder;
using platform::checked_add;

void ResumeData::Part::encode(KeyedEncoder& to) const {
  to.put("begin_pos", begin_pos);
  to.put("total_bytes_expected", total_bytes_expected);
  to.put("curr_bytes", curr_bytes);
}

void ResumeData::Part::decode(const KeyedDecoder& from) {
  from.get("begin_pos", begin_pos);
  from.get("total_bytes_expected", total_bytes_expected);
  from.get("curr_bytes", curr_bytes);
}

void ResumeData::encode(KeyedEncoder& to) const {
  to.put("server_side_date", server_side_date);
  to.put("content_length", content_length);
  to.put("is_splitted", is_splitted);
  to.put_list("parts", parts.size(),
              [this](std::size_t i, KeyedEncoder& part) { parts[i]->encode(part); });
}

void ResumeData::decode(const KeyedDecoder& from) {
  from.get("server_side_date", server_side_date);
  from.get("content_length", content_length);
  from.get("is_splitted", is_splitted);
  from.get_list("parts", [this](const KeyedDecoder& element) {
    auto part = std::make_shared<Part>();
    part->decode(element);
    parts.push_back(std::move(part));
  });
}

bool ResumeData::is_valid() const {
  if (content_length.value_or(0) < 0)
    return false;
  auto expected = is_splitted && content_length
                      ? split_into_parts(*content_length, parts_when_split)
                      : split_into_parts(content_length.value_or(-1), 1);
  return std::ranges::equal(parts, expected,
                            [](const auto& found, const auto& made) {
                              const auto length = made->total_bytes_expected;
                              return found->begin_pos == made->begin_pos &&
                                     found->total_bytes_expected == length &&
                                     found->curr_bytes >= 0;
                            }) &&
         has_countable_bytes();
}

bool ResumeData::has_counts_within_parts() const {
  return std::ranges::all_of(parts, [](const auto& part) {
    return part->total_bytes_expected < 0 || part->curr_bytes <= part->total_bytes_expected;
  });
}

bool ResumeData::has_countable_bytes() const {
  std::int64_t sum = 0;
  return std::ranges::none_of(parts, [&sum](const auto& part) {
    return __builtin_add_overflow(sum, part->curr_bytes, &sum);
  });
}

std::int64_t ResumeData::received_bytes() const {
  std::int64_t sum = 0;
  for (const auto& part : parts)
    sum = checked_add(sum, part->curr_bytes);
  return sum;
}

ResumeData ResumeData::clone() const {
  auto copy = *this;
  for (auto& part : copy.parts)
    part = std::make_shared<Part>(*part);
  return copy;
}

} // namespace ravelin
