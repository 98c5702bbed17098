#pragma once

#include "ravelin/error.h"
#include "ravelin/text_error.h"

#include <cstdint>
#include <string_view>

namespace ravelin::bramblekit {

/// Thrown and reported by a cancelled run; identified by its type.
class Exception {};

/// An error with `message` and the source location that raised it.
TextError error_msg(std::string_view message, std::string_view source_path,
                    std::string_view function, std::int64_t line);

template <class E> Error to_error(E exception) {
  return Error(std::make_exception_ptr(std::move(exception)));
}

/// Silences warnings about unused values.
template <class... Values> void suppress_warns_for(const Values&...) {}

} // namespace ravelin::bramblekit
