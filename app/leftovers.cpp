#include "app/leftovers.h"

#include "src/FileProcessor.h"

#include <algorithm>

namespace ravelin::app {

namespace fs = std::filesystem;

namespace {

constexpr std::int64_t parts_of_a_download = 5;

bool is_ours(const ResumeData& record) {
  const auto expected = split_into_parts(*record.content_length, parts_of_a_download);
  return std::ranges::equal(record.parts, expected, [](const auto& found, const auto& made) {
    return found->begin_pos == made->begin_pos &&
           found->total_bytes_expected == made->total_bytes_expected && found->curr_bytes >= 0 &&
           found->curr_bytes <= found->total_bytes_expected;
  });
}

} // namespace

fs::path record_of(const fs::path& file) {
  return FileProcessor::prepare_resume_file_url(URL::file(file)).path();
}

bool can_continue(const fs::path& file) {
  const auto record = FileProcessor::read_resume_data(URL::file(file));
  return record && record->is_splitted;
}

bool record_fits(const fs::path& file) {
  std::error_code unknown;
  if (!fs::exists(record_of(file), unknown))
    return true;
  const auto record = FileProcessor::read_resume_data(URL::file(file));
  if (!record)
    return false;
  if (!record->is_splitted || !record->content_length)
    return true; // begun anew in any case
  if (*record->content_length <= 0 || !is_ours(*record))
    return false;
  std::int64_t counted = 0; // the end of the last byte that has come
  for (const auto& part : record->parts)
    if (part->curr_bytes > 0)
      counted = std::max(counted, part->begin_pos + part->curr_bytes);
  const auto size = fs::file_size(file, unknown);
  return counted == 0 || (!unknown && size >= static_cast<std::uintmax_t>(counted));
}

} // namespace ravelin::app
