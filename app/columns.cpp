#include "app/columns.h"

#include <algorithm>
#include <cstdlib>
#include <cwchar>

namespace ravelin::app {
namespace {

/// Reads a text character by character, in the encoding of the locale.
class Reader {
public:
  explicit Reader(const std::string& text) : text_(text) {}

  bool next() {
    at_ += shown.empty() ? 0 : length_;
    if (at_ >= text_.size())
      return false;
    wchar_t letter = 0;
    length_ = std::mbrtowc(&letter, text_.data() + at_, text_.size() - at_, &state_);
    const bool readable = length_ != 0 && length_ <= text_.size() - at_;
    if (!readable) {
      length_ = 1;
      state_ = {};
    }
    shown = readable ? text_.substr(at_, length_) : "?";
    columns = readable ? static_cast<std::size_t>(std::max(wcwidth(letter), 0)) : 1;
    if (letter == L'\x1b')
      skip_colour();
    return true;
  }

  std::string shown;       // the current character
  std::size_t columns = 0; // that it takes

private:
  void skip_colour() {
    const auto end = text_.find('m', at_);
    length_ = (end == std::string::npos ? text_.size() : end + 1) - at_;
    columns = 0;
  }

  const std::string& text_;
  std::size_t at_ = 0;
  std::size_t length_ = 0;
  std::mbstate_t state_{};
};

} // namespace

std::size_t display_width(const std::string& text) {
  std::size_t columns = 0;
  for (Reader reader(text); reader.next();)
    columns += reader.columns;
  return columns;
}

std::string shortened(const std::string& text, std::size_t columns) {
  const std::string ellipsis = MB_CUR_MAX > 1 ? "\u2026" : "~";
  std::string result;
  std::size_t used = 0;
  std::size_t cut = 0; // bytes after which the ellipsis still fits
  for (Reader reader(text); reader.next();) {
    if (used + reader.columns > columns)
      return columns == 0 ? "" : result.substr(0, cut) + ellipsis;
    result += reader.shown;
    used += reader.columns;
    if (used < columns)
      cut = result.size();
  }
  return result;
}

std::string fitted(const std::string& text, std::size_t columns) {
  const auto result = shortened(text, columns);
  return result + std::string(columns - std::min(display_width(result), columns), ' ');
}

} // namespace ravelin::app
