#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace ravelin {

/// An error of the library that has a text but no code, unless it nests an exception that has one.
class [[gnu::visibility("default")]] TextError : public std::runtime_error {
public:
  /// `text` is both `what()` and `message()`.
  explicit TextError(const std::string& text) : TextError(text, text) {}
  /// `text` is `what()`, with the source location; `message` is for people.
  TextError(const std::string& text, std::string message)
      : std::runtime_error(text), message_(std::move(message)) {}
  /// The text for people.
  const std::string& message() const {
    return message_;
  }

private:
  std::string message_;
};

} // namespace ravelin
