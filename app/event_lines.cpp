#include "app/event_lines.h"

#include "app/naming.h"
#include "bramblekit/convertible.h"

#include <cmath>

namespace ravelin::app {
namespace {

using bramblekit::KeyedEncoder;

std::string file_text(const URL& url) {
  return printable(url.path().native());
}

void put_length(KeyedEncoder& to, const std::optional<std::int64_t>& length) {
  if (length)
    to.put("content_length", *length);
  else
    to.put_null("content_length");
}

void put_progress(KeyedEncoder& to, const Progress& progress) {
  if (progress.prog_value && std::isfinite(*progress.prog_value))
    to.put("prog_value", static_cast<double>(*progress.prog_value));
  else
    to.put_null("prog_value");
  to.put("received_bytes", progress.received_bytes);
  put_length(to, progress.content_length);
  to.put("is_at_snap_point", progress.is_at_snap_point);
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

std::string event_line(const Status& status, const std::string& link, const std::string& dest_file,
                       bool is_final) {
  KeyedEncoder line;
  line.put("event", std::string(name_of(status)));
  line.put("url", printable(link));
  line.put("dest_file", printable(dest_file));
  status.visit(match{
      [&](const Status::renamed& e) { line.put("new_file_url", file_text(e.new_file_url)); },
      [&](const Status::files_are_created& e) {
        line.put("main_file_url", file_text(e.main_file_url));
        line.put("resume_file_url", file_text(e.resume_file_url));
      },
      [&](const Status::started& e) { put_length(line, e.content_length); },
      [&](const Status::downloading& e) { put_progress(line, e.progress); },
      [&](const Status::cancelled& e) {
        line.put("also_cleared_files", e.also_cleared_files);
        put_progress(line, e.progress);
      },
      [&](const Status::error& e) {
        line.put("custom_error", std::string(name_of(e.custom_error)));
        line.put("text", printable(e.custom_error.text()));
        line.put("final", is_final);
      },
      [](const Status::pending&) {},
      [](const Status::connecting&) {},
      [](const Status::success&) {},
      [](const Status::cancelling&) {},
  });
  return line.text();
}

} // namespace ravelin::app
