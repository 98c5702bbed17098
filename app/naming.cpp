#include "app/naming.h"

#include <ravelin/ravelin.hpp>

#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cstdlib>

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

std::optional<std::int64_t> parse_size(const std::string& text) {
  char* rest = nullptr;
  const double number = std::strtod(text.c_str(), &rest);
  std::string unit(rest);
  if (rest == text.c_str() || unit.size() > 2)
    return std::nullopt;
  if (unit.size() == 2 && (unit.back() == 'B' || unit.back() == 'b'))
    unit.pop_back();
  constexpr double kilo = 1024.0;
  double factor = 1;
  if (unit == "k" || unit == "K")
    factor = kilo;
  else if (unit == "m" || unit == "M")
    factor = kilo * kilo;
  else if (unit == "g" || unit == "G")
    factor = kilo * kilo * kilo;
  else if (!unit.empty())
    return std::nullopt;
  const double bytes = number * factor;
  if (!(bytes >= 0 && bytes < 9e18))
    return std::nullopt;
  return static_cast<std::int64_t>(bytes);
}

std::string human_time(std::chrono::seconds time) {
  const auto whole = time.count();
  if (whole >= 3600)
    return fmt::format("{}:{:02}:{:02}", whole / 3600, whole / 60 % 60, whole % 60);
  return fmt::format("{:02}:{:02}", whole / 60, whole % 60);
}

std::string describe_average(std::int64_t bytes, std::chrono::duration<double> time) {
  const auto rate = static_cast<double>(bytes) / std::max(time.count(), 1e-3);
  const auto shown = time.count() < 60
                         ? fmt::format("{:.1f} s", time.count())
                         : human_time(std::chrono::duration_cast<std::chrono::seconds>(time));
  return fmt::format(" in {} ({}/s)", shown, human_size(static_cast<std::int64_t>(rate)));
}

} // namespace ravelin::app
