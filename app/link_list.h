#pragma once

#include "app/checksum.h"

#include <optional>
#include <string>
#include <vector>

namespace ravelin::app {

struct Link {
  std::string url;
  std::optional<Checksum> checksum; // as given, not the server's
};

/// The links in a file, one per line, each of which may be followed by a SHA-256 checksum; "-" is
/// standard input. Throws an exception with the reason if it cannot be read or understood.
std::vector<Link> read_link_list(const std::string& from);

} // namespace ravelin::app
