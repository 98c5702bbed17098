#include "app/link_list.h"

#include "app/naming.h"

#include <ravelin/ravelin.hpp>

#include <fmt/core.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <system_error>

namespace ravelin::app {
namespace {

void open(std::ifstream& file, const std::string& path) {
  std::error_code ignored;
  const bool is_directory = std::filesystem::is_directory(path, ignored);
  file.open(path);
  if (is_directory || !file)
    throw std::system_error(is_directory ? EISDIR : errno, std::system_category(),
                            "could not read '" + path + "'");
}

/// None if it is not a link, or a link and a checksum. A blank must not become part of the link,
/// since a mistyped checksum would, too. A list separated by null bytes has control characters.
std::optional<Link> parse_line(const std::string& line) {
  if (std::ranges::any_of(line, [](unsigned char c) { return c < ' ' && c != '\t'; }))
    return std::nullopt;
  const auto blank = line.find_first_of(" \t");
  if (blank == std::string::npos)
    return Link{complete_link(line), std::nullopt};
  auto checksum = parse_sha256(line.substr(line.find_first_not_of(" \t", blank)));
  if (!checksum)
    return std::nullopt;
  return Link{complete_link(line.substr(0, blank)), std::move(checksum)};
}

} // namespace

std::vector<Link> read_link_list(const std::string& from) {
  std::ifstream file;
  if (from != "-")
    open(file, from);
  auto& lines = from == "-" ? std::cin : file;
  std::vector<Link> links;
  int number = 1;
  for (std::string line; std::getline(lines, line); ++number) {
    if (line.starts_with("\xEF\xBB\xBF")) // a byte order mark
      line.erase(0, 3);
    const auto begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos || line[begin] == '#')
      continue;
    line = line.substr(begin, line.find_last_not_of(" \t\r") - begin + 1);
    const auto link = parse_line(line);
    if (!link)
      throw TextError(fmt::format(
          "line {} of '{}' is '{}'; expected a link, or a link and a SHA-256 checksum of 64 "
          "hexadecimal digits (a blank in a link is written as %20)",
          number, from, shown_link(line)));
    links.push_back(*link);
  }
  if (lines.bad())
    throw TextError("could not read all of '" + from + "'");
  if (links.empty())
    throw TextError("'" + from + "' contains no links");
  return links;
}

} // namespace ravelin::app
