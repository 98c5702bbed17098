#pragma once

#include <filesystem>
#include <optional>
#include <string>

namespace ravelin::app {

/// What stands for a link beside the file that is made from it: a digest, since links may hold
/// secrets.
std::string link_mark(const std::string& link);

/// The mark in an extended attribute of the file. Nothing where there is none, or cannot be.
std::optional<std::string> mark_of(const std::filesystem::path& file);
/// Best effort.
void mark(const std::filesystem::path& file, const std::string& link);

} // namespace ravelin::app
