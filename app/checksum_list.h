#pragma once

#include <ravelin/ravelin.hpp>

#include <string>

namespace ravelin::app {

/// The text of a list of checksums in a file or at a link. Runs the main queue while it downloads.
/// Throws an exception with the reason if it cannot be read.
std::string read_checksum_list(const std::string& from, const Options& options);

} // namespace ravelin::app
