#pragma once

#include <filesystem>
#include <string>

namespace app {

/// The checksum of the file's content in lower-case hexadecimal digits. Throws
/// `std::system_error` where the file cannot be read.
std::string sha256_of(const std::filesystem::path& file);

} // namespace app
