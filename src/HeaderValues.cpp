#include "src/HeaderValues.h"

#include "bramblekit/collections.h"

#include <charconv>

namespace ravelin {

std::optional<std::int64_t> parse_decimal(std::string_view text) {
  if (text.starts_with('+') && text.size() > 1 && text[1] != '-')
    text.remove_prefix(1);
  std::int64_t number = 0;
  const auto* const end = text.data() + text.size();
  const auto [parsed_to, error] = std::from_chars(text.data(), end, number, 10);
  if (error != std::errc() || parsed_to != end)
    return std::nullopt;
  return number;
}

std::optional<std::int64_t> announced_length(const platform::HeaderFields& fields) {
  const auto text = bramblekit::case_insensitive(fields, "Content-Length");
  return text ? parse_decimal(*text) : std::nullopt;
}

bool is_platform_cancellation(const Error& error) {
  return error.code() == URLError::cancelled;
}

} // namespace ravelin
