#include "app/naming.h"

#include "ravelin/url.h"

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <filesystem>

namespace ravelin::app {
namespace {

/// How many bytes the UTF-8 sequence at the start of `text` has; 0 where there is none.
std::size_t sequence_length(std::string_view text) {
  const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
  const auto first = byte(0);
  const std::size_t length = first < 0x80                     ? 1
                             : first >= 0xC2 && first <= 0xDF ? 2
                             : first >= 0xE0 && first <= 0xEF ? 3
                             : first >= 0xF0 && first <= 0xF4 ? 4
                                                              : 0;
  if (length == 0 || length > text.size())
    return 0;
  for (std::size_t i = 1; i < length; ++i)
    if (byte(i) < 0x80 || byte(i) > 0xBF)
      return 0;
  const bool overlong_or_surrogate =
      (first == 0xE0 && byte(1) < 0xA0) || (first == 0xED && byte(1) > 0x9F) ||
      (first == 0xF0 && byte(1) < 0x90) || (first == 0xF4 && byte(1) > 0x8F);
  return overlong_or_surrogate ? 0 : length;
}

/// Keeps the extension, and cuts no letter in two.
std::string shortened(const std::string& name, std::size_t size) {
  auto extension = std::filesystem::path(name).extension().native();
  if (extension.size() > 20)
    extension.clear();
  auto end = size - extension.size();
  const auto least = end - 3; // a letter has four bytes at most, and the rest is none
  while (end > least && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80)
    --end;
  return name.substr(0, end) + extension;
}

} // namespace

std::string with_scheme(std::string link) {
  const bool has_scheme = link.find("://") < link.find_first_of("/?#");
  return has_scheme || link.empty() ? link : "http://" + link;
}

std::string name_from_link(std::string_view link) {
  link = link.substr(0, link.find_first_of("?#"));
  if (const auto scheme = link.find("://"); scheme != std::string_view::npos)
    link.remove_prefix(scheme + 3);
  const auto path = link.find('/');
  if (path == std::string_view::npos)
    return no_name;
  const auto segment = link.substr(link.find_last_of('/') + 1);
  const auto name = URL("file:///" + std::string(segment)).path().native().substr(1);
  return usable_name(name).value_or(no_name);
}

std::optional<std::string> usable_name(std::string name) {
  std::ranges::replace_if(
      name, [](unsigned char c) { return c == '/' || c < 0x20 || c == 0x7F; }, '_');
  constexpr std::size_t longest = 200; // bytes; leaves room for the names beside it
  if (name.size() > longest)
    name = shortened(name, longest);
  if (name.empty() || name == "." || name == "..")
    return std::nullopt;
  return name;
}

std::string printable(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const auto length = sequence_length(text);
    const auto first = static_cast<unsigned char>(text.front());
    if (length == 0)
      result += "\xEF\xBF\xBD";
    else if (first < 0x20 || first == 0x7F)
      result += '?';
    else
      result += text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

std::string human_size(std::int64_t bytes) {
  constexpr std::array units = {"B", "KiB", "MiB", "GiB", "TiB", "PiB"};
  auto value = static_cast<double>(bytes);
  std::size_t unit = 0;
  for (; value >= 1024 && unit + 1 < units.size(); ++unit)
    value /= 1024;
  return unit == 0 ? fmt::format("{} B", bytes) : fmt::format("{:.1f} {}", value, units[unit]);
}

} // namespace ravelin::app
