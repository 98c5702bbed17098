#pragma once

#include <stdexcept>
#include <string>
#include <utility>

namespace ravelin {

/// An error that is a text of the library's own.
class [[gnu::visibility("default")]] TextError : public std::runtime_error {
public:
  /// One sentence that says everything.
  explicit TextError(const std::string& text) : TextError(text, text) {}
  /// `text` is everything there is to say, `message` the sentence for people.
  TextError(const std::string& text, std::string message)
      : std::runtime_error(text), message_(std::move(message)) {}
  /// The sentence for people.
  const std::string& message() const {
    return message_;
  }

private:
  std::string message_;
};

} // namespace ravelin
