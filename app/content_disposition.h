#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace ravelin::app {

/// The file name in a `Content-Disposition` field, `filename*` before `filename`. Never one that
/// leads out of the directory or hides; nothing where the field has no usable name.
std::optional<std::string> name_from_disposition(std::string_view field);

} // namespace ravelin::app
