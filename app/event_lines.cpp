#include "app/event_lines.h"

#include "app/naming.h"

#include <cmath>
#include <nlohmann/json.hpp>

namespace ravelin::app {
namespace {

using Json = nlohmann::ordered_json;

// Raised if a key is removed or changes its meaning. New keys may be added at any time.
constexpr int format_version = 1;

std::string printable_path(const URL& url) {
  return printable(url.path().native());
}

void put_length(Json& to, const std::optional<std::int64_t>& length) {
  if (length)
    to["content_length"] = *length;
  else
    to["content_length"] = nullptr;
}

void put_progress(Json& to, const Progress& progress) {
  if (progress.prog_value && std::isfinite(*progress.prog_value))
    to["prog_value"] = static_cast<double>(*progress.prog_value);
  else
    to["prog_value"] = nullptr;
  to["received_bytes"] = progress.received_bytes;
  put_length(to, progress.content_length);
  to["is_at_snap_point"] = progress.is_at_snap_point;
}

const char* name_of(const Status& status) {
  return status.visit(match{
      [](const Status::renamed&) { return "renamed"; },
      [](const Status::files_are_created&) { return "files_are_created"; },
      [](const Status::started&) { return "started"; },
      [](const Status::downloading&) { return "downloading"; },
      [](const Status::cancelled&) { return "cancelled"; },
      [](const Status::error&) { return "error"; },
      [](const Status::pending&) { return "pending"; },
      [](const Status::connecting&) { return "connecting"; },
      [](const Status::success&) { return "success"; },
      [](const Status::cancelling&) { return "cancelling"; },
  });
}

const char* name_of(const CustomError& error) {
  return error.visit(match{
      [](const CustomError::other&) { return "other"; },
      [](const CustomError::timeout&) { return "timeout"; },
      [](const CustomError::not_connected_to_internet&) { return "not_connected_to_internet"; },
      [](const CustomError::network_connection_lost&) { return "network_connection_lost"; },
  });
}

} // namespace

std::string event_line(const Status& status, const EventContext& context) {
  Json line;
  line["event"] = name_of(status);
  line["version"] = format_version;
  line["url"] = shown_link(context.link);
  line["dest_file"] = printable(context.dest_file);
  status.visit(match{
      [&](const Status::renamed& e) { line["new_file_url"] = printable_path(e.new_file_url); },
      [&](const Status::files_are_created& e) {
        line["main_file_url"] = printable_path(e.main_file_url);
        line["resume_file_url"] = printable_path(e.resume_file_url);
      },
      [&](const Status::started& e) { put_length(line, e.content_length); },
      [&](const Status::downloading& e) {
        put_progress(line, e.progress);
        line["bytes_per_second"] = std::round(context.speed.bytes_per_second);
        line["seconds_left"] = nullptr;
        if (context.speed.left)
          line["seconds_left"] = context.speed.left->count();
      },
      [&](const Status::cancelled& e) {
        line["also_cleared_files"] = e.also_cleared_files;
        put_progress(line, e.progress);
      },
      [&](const Status::error& e) {
        line["custom_error"] = name_of(e.custom_error);
        line["text"] = printable(e.custom_error.text());
        line["final"] = context.is_final;
      },
      [](const Status::pending&) {},
      [](const Status::connecting&) {},
      [](const Status::success&) {},
      [](const Status::cancelling&) {},
  });
  return line.dump();
}

} // namespace ravelin::app
