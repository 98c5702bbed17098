#include "platform/utf8.h"

namespace ravelin::platform {
namespace {

char32_t decode(std::string_view sequence) {
  if (sequence.size() == 1)
    return static_cast<unsigned char>(sequence[0]);
  char32_t value = static_cast<unsigned char>(sequence[0]) & (0xFFU >> (sequence.size() + 1));
  for (const char c : sequence.substr(1))
    value = (value << 6) | (static_cast<unsigned char>(c) & 0x3FU);
  return value;
}

bool is_control(char32_t c) {
  const bool changes_direction = c == 0x061C || c == 0x200E || c == 0x200F ||
                                 (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
  return c < 0x20 || (c >= 0x7F && c <= 0x9F) || c == 0x2028 || c == 0x2029 || changes_direction;
}

} // namespace

std::size_t sequence_length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto first = byte(0);
  const std::size_t length = first < 0x80                     ? 1
                             : first >= 0xC2 && first <= 0xDF ? 2
                             : first >= 0xE0 && first <= 0xEF ? 3
                             : first >= 0xF0 && first <= 0xF4 ? 4
                                                              : 0;
  if (length == 0 || length > text.size())
    return 0;
  for (std::size_t i = 1; i < length; ++i)
    if (byte(i) < 0x80 || byte(i) > 0xBF)
      return 0;
  const bool overlong_or_surrogate =
      (first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F) ||
      (first == 0xF0 && byte(1) < 0x90) || (first == 0xF4 && byte(1) > 0x8F);
  return overlong_or_surrogate ? 0 : length;
}

std::string replace_controls(std::string_view text, char by) {
  std::string result;
  while (!text.empty()) {
    const auto length = std::max<std::size_t>(sequence_length(text), 1);
    const auto sequence = text.substr(0, length);
    if (is_control(decode(sequence)))
      result += by;
    else
      result += sequence;
    text.remove_prefix(length);
  }
  return result;
}

} // namespace ravelin::platform
