#include "ravelin/url.h"

namespace ravelin {
namespace {

constexpr std::string_view file_scheme = "file://";

std::string percent_encoded(std::string_view path) {
  constexpr std::string_view plain = "/-_.~!$&'()*+,;=:@";
  constexpr char digits[] = "0123456789ABCDEF";
  std::string text;
  for (const char c : path) {
    const auto byte = static_cast<unsigned char>(c);
    const bool alnum = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9');
    if (alnum || plain.find(c) != std::string_view::npos) {
      text += c;
    } else {
      text += '%';
      text += digits[byte >> 4];
      text += digits[byte & 15];
    }
  }
  return text;
}

int hex_value(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  return c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
}

std::string percent_decoded(std::string_view text) {
  std::string path;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool escaped = text[i] == '%' && i + 2 < text.size() && hex_value(text[i + 1]) >= 0 &&
                         hex_value(text[i + 2]) >= 0;
    if (escaped) {
      path += static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
      i += 2;
    } else {
      path += text[i];
    }
  }
  return path;
}

} // namespace

URL URL::file(std::filesystem::path path) {
  URL url;
  url.text_ = path.native();
  url.is_file_ = true;
  return url;
}

std::filesystem::path URL::path() const {
  if (is_file_)
    return text_;
  if (text_.starts_with(file_scheme))
    return percent_decoded(std::string_view(text_).substr(file_scheme.size()));
  return {};
}

std::string URL::text() const {
  if (!is_file_)
    return text_;
  std::error_code ignored; // if the working directory is gone, the path stays relative
  const auto absolute = std::filesystem::absolute(text_, ignored);
  return std::string(file_scheme) + percent_encoded(ignored ? text_ : absolute.native());
}

} // namespace ravelin
