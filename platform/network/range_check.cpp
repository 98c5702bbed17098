#include "platform/network/range_check.h"

namespace ravelin::platform {

std::optional<ContentRange> parse_requested_range(std::string_view value) {
  constexpr std::string_view unit = "bytes=";
  if (!value.starts_with(unit))
    return std::nullopt;
  return parse_content_range("bytes " + std::string(value.substr(unit.size())) + "/*");
}

std::optional<std::string> range_fault(const ContentRange& asked, const URLResponse& response) {
  const auto range_text = std::to_string(asked.start) + "-" + std::to_string(asked.end);
  if (response.status != 206)
    return "the server was asked for bytes " + range_text + " and answered with status " +
           std::to_string(response.status) + " instead of 206";
  const auto* const field = find_field(response.header_fields, "Content-Range");
  const auto got = field ? parse_content_range(*field) : std::nullopt;
  if (!got || got->start != asked.start || got->end != asked.end)
    return "the server was asked for bytes " + range_text + " and sent " +
           (field ? "'" + *field + "'" : std::string("a part that it does not name"));
  const auto* const length = find_field(response.header_fields, "Content-Length");
  if (length && *length != std::to_string(asked.end - asked.start + 1))
    return "the server was asked for bytes " + range_text + " and announced " + *length + " bytes";
  return std::nullopt;
}

} // namespace ravelin::platform
