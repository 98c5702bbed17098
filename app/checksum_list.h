#pragma once

#include <ravelin/ravelin.hpp>

#include <memory>
#include <string>

namespace ravelin::app {

/// The text of a list of checksums in a file or at a link. `operation` downloads it, while the main
/// queue runs, and may be cancelled. Throws an exception with the reason if it cannot be read.
std::string read_checksum_list(const std::string& from,
                               const std::shared_ptr<RavelinOperation>& operation);

} // namespace ravelin::app
