#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace ravelin::app {

/// The checksum of the file's content in lower-case hexadecimal digits. Throws
/// `std::system_error` where the file cannot be read.
std::string sha256_of(const std::filesystem::path& file);
std::string sha256_of_text(std::string_view text);

} // namespace ravelin::app
