#include "bramblekit/errors.h"

namespace ravelin::bramblekit {

TextError error_msg(std::string_view message, std::string_view source_path,
                    std::string_view function, std::int64_t line) {
  std::string text(message);
  text.append(" [").append(source_path).append(": ").append(function);
  text.append(", line ").append(std::to_string(line)).append("]");
  return {text, std::string(message)};
}

} // namespace ravelin::bramblekit
