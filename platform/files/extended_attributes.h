#pragma once

#include "platform/data.h"
#include "ravelin/url.h"

#include <optional>
#include <string>
#include <string_view>

namespace ravelin::platform {

/// Stores `value` as the file's extended attribute `name`, or removes the attribute. Best effort.
void set_extended_attribute(const URL& url, std::string_view name,
                            const std::optional<Data>& value) noexcept;
std::optional<std::string> extended_attribute(const URL& url, std::string_view name);

} // namespace ravelin::platform
