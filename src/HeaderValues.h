#pragma once

#include "platform/network/http_response.h"
#include "ravelin/error.h"

#include <cstdint>
#include <optional>
#include <string_view>

namespace ravelin {

/// The whole of `text` as a decimal number with an optional sign; nothing else passes.
std::optional<std::int64_t> parse_decimal(std::string_view text);

/// The announced length of the body, if there is a readable one.
std::optional<std::int64_t> announced_length(const platform::HeaderFields& fields);

/// Whether the platform says that the task was cancelled, which is nobody's error.
bool is_platform_cancellation(const Error& error);

} // namespace ravelin
