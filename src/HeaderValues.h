#pragma once

#include "platform/network/http_response.h"
#include "ravelin/error.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace ravelin {

/// `text` as a decimal number with an optional sign; none if it is anything else.
std::optional<std::int64_t> parse_decimal(std::string_view text);

/// The value of "Content-Length"; none if missing or invalid.
std::optional<std::int64_t> announced_length(const platform::HeaderFields& fields);

/// Whether the error just means that the task was cancelled.
bool is_platform_cancellation(const Error& error);

} // namespace ravelin
