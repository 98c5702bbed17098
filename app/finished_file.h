#pragma once

#include <ravelin/ravelin.hpp>

#include <filesystem>
#include <string>

namespace ravelin::app {

/// Sets the file's time to the one in "Last-Modified", if there is one. Failures are ignored.
void set_remote_time(const std::filesystem::path& file, const Response& response);

/// Notes the link, without its credentials, query and fragment, in the extended attribute
/// user.xdg.origin.url. Failures are ignored, since not every file system has attributes.
void note_origin_link(const std::filesystem::path& file, const std::string& link);

} // namespace ravelin::app
