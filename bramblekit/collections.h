#pragma once

#include "platform/network/http_response.h"

#include <algorithm>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace ravelin::bramblekit {

/// The value of the field `key`, in any letter case.
inline std::optional<std::string> case_insensitive(const platform::HeaderFields& fields,
                                                   std::string_view key) {
  const auto* const found = platform::find_field(fields, key);
  return found ? std::optional(*found) : std::nullopt;
}

/// Removes the first element equal to `element`.
template <class T> void remove(std::vector<T>& array, const T& element) {
  if (const auto found = std::ranges::find(array, element); found != array.end())
    array.erase(found);
}

} // namespace ravelin::bramblekit
