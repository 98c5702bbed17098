#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ravelin {

/// The file name in a "Content-Disposition" field; `filename*` is preferred to `filename`. None if
/// there is no usable name.
std::optional<std::string> name_from_disposition(std::string_view field);

/// `name` made safe as a file name: at most 200 bytes of valid UTF-8, without slashes, control
/// characters, characters that change the text direction, or a leading dash. None for "", "." and
/// "..".
std::optional<std::string> safe_name(std::string name);

} // namespace ravelin
