#pragma once

#include "platform/network/http_response.h"

#include <optional>
#include <string>
#include <string_view>

namespace ravelin::platform {

/// The range that a "Range" field value such as "bytes=0-99" asks for; nothing for other forms.
std::optional<ContentRange> parse_requested_range(std::string_view value);

/// Why `response` is not exactly the `asked` range, in words; nothing if it is.
std::optional<std::string> range_fault(const ContentRange& asked, const URLResponse& response);

} // namespace ravelin::platform
