#pragma once

#include "ravelin/defaults.h"
#include "ravelin/status.h"

#include <chrono>
#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

namespace ravelin::app {

enum ExitStatus { all_well = 0, failed = 1, wrong_usage = 2, interrupted = 130, terminated = 143 };

struct GetOptions {
  std::vector<std::string> links;
  std::optional<std::filesystem::path> output;
  std::filesystem::path directory;
  bool remote_names = false;
  OnConflict on_conflict = OnConflict::resume;
  bool split = true;
  std::int64_t max_downloads = 5;
  std::optional<std::string> sha256; // lower case
  int retries = 5;
  bool quiet = false;
  bool events = false;
  Defaults defaults;
};

struct Options {
  enum Command { nothing, get, status, clear } command = nothing;
  GetOptions get_options;
  std::vector<std::filesystem::path> files; // of `status` and `clear`
};

/// What to do, or the exit status after a message has been printed.
struct Parsed {
  Options options;
  std::optional<int> exit_status;
};
Parsed parse_arguments(int argc, const char* const* argv);

/// "10k", "1.5M" and the like as bytes; K, M and G are powers of 1024. Nothing for other texts.
std::optional<std::int64_t> parse_size(const std::string& text);

} // namespace ravelin::app
