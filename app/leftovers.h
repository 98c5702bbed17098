#pragma once

#include <filesystem>

namespace ravelin::app {

/// The resume record beside `file`, as the library names it.
std::filesystem::path record_of(const std::filesystem::path& file);

/// Whether a download to `file` would go on from what is there; those in one piece begin anew.
bool can_continue(const std::filesystem::path& file);

/// Whether the record beside `file` is one that this library makes, and counts no byte that `file`
/// does not have. True where there is no record.
bool record_fits(const std::filesystem::path& file);

} // namespace ravelin::app
