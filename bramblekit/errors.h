#pragma once

#include "ravelin/error.h"
#include "ravelin/text_error.h"

#include <cstdint>
#include <string_view>

namespace ravelin::bramblekit {

/// Marks a cancelled run, and is recognised by its type.
class Exception {};

/// An error that says `message` and the place that raised it.
TextError error_msg(std::string_view message, std::string_view source_path,
                    std::string_view function, std::int64_t line);

/// An error value that holds `exception`.
template <class E> Error to_error(E exception) {
  return Error(std::make_exception_ptr(std::move(exception)));
}

/// Marks values that the caller ignores on purpose.
template <class... Values> void suppress_warns_for(const Values&...) {}

} // namespace ravelin::bramblekit
