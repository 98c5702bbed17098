#pragma once

#include <filesystem>
#include <string>

namespace ravelin::app {

/// The checksum in lower-case hexadecimal digits. Throws `std::system_error` if the file cannot be
/// read.
std::string sha256_of(const std::filesystem::path& file);

} // namespace ravelin::app
