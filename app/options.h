#pragma once

#include "app/link_list.h"

#include <ravelin/ravelin.hpp>

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ravelin::app {

enum ExitStatus { success = 0, failed = 1, usage_error = 2, interrupted = 130, terminated = 143 };

struct GetOptions {
  std::vector<Link> links;
  bool to_stdout = false; // one link, in order
  std::optional<std::filesystem::path> output;
  std::filesystem::path directory;
  bool remote_names = false;
  OnConflict on_conflict = OnConflict::resume;
  bool split = true;
  std::int64_t max_downloads = 5;
  std::optional<std::string> checksum_list; // a file or a link
  std::string checksum_list_text;
  bool restart_changed = true; // if the content has changed since it was begun
  bool check_digests = true;   // that servers send
  bool remote_time = false;
  bool note_origin = false;               // in an extended attribute
  std::optional<std::int64_t> rate_limit; // bytes per second, for all downloads together
  bool quiet = false;
  bool events = false;
  std::chrono::milliseconds events_interval{0}; // between progress events of one download
  Options download;
};

struct Arguments {
  enum Command { nothing, get, status, clear } command = nothing;
  GetOptions get_options;
  std::vector<std::filesystem::path> files; // of `status` and `clear`
  bool clear_complete = false;
};

/// The arguments, or the exit status if a message was printed.
struct Parsed {
  Arguments options;
  std::optional<int> exit_status;
};
Parsed parse_arguments(int argc, const char* const* argv);

} // namespace ravelin::app
