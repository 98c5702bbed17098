#include "app/naming.h"

#include <ravelin/ravelin.hpp>

#include <fmt/core.h>

#include <array>

namespace ravelin::app {

std::string complete_link(std::string link) {
  for (auto blank = link.find(' '); blank != std::string::npos; blank = link.find(' ', blank))
    link.replace(blank, 1, "%20");
  const bool has_scheme = link.find("://") < link.find_first_of("/?#");
  return has_scheme || link.empty() ? link : "http://" + link;
}

std::string shown_link(const std::string& link) {
  return printable(without_password(link));
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
