#include "app/get_command.h"
#include "app/leftovers.h"
#include "app/naming.h"
#include "app/options.h"
#include "app/process_lock.h"
#include "ravelin/ravelin_operation.h"
#include "src/FileProcessor.h"

#include <fmt/core.h>

#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <unistd.h>

namespace {

using app::human_size;
using app::printable;
using ravelin::RavelinOperation;
using ravelin::URL;

namespace fs = std::filesystem;

int show_status(const fs::path& file) {
  std::error_code ignored;
  const auto shown = printable(file.native());
  const auto record = app::record_of(file);
  if (!fs::exists(record, ignored)) {
    const bool there = fs::exists(file, ignored);
    fmt::print("{}: {}\n", shown,
               there ? "complete, or not downloaded by ravelin" : "no such download");
    return there ? app::all_well : app::failed;
  }
  const auto progress = RavelinOperation::get_progress(URL::file(file));
  if (progress.content_length && progress.prog_value)
    fmt::print("{}: {:.1f}% ({} of {} bytes), can be continued\n", shown,
               static_cast<double>(*progress.prog_value) * 100, progress.received_bytes,
               *progress.content_length);
  else
    fmt::print("{}: {} bytes received, length unknown; starts anew when continued\n", shown,
               progress.received_bytes);
  return app::all_well;
}

int clear(const fs::path& file) {
  app::ProcessLock lock(file);
  if (lock.held_by_another()) {
    fmt::print(stderr, "ravelin: '{}' is being downloaded; stop that first\n",
               printable(file.native()));
    return app::failed;
  }
  std::error_code ignored;
  if (lock.other_owner().empty()) {
    RavelinOperation::clear_files(URL::file(file));
  } else { // the record is another's
    try {
      ravelin::FileProcessor::delete_main_file(URL::file(file));
    } catch (const std::exception&) {
      // Said below.
    }
  }
  if (!fs::exists(fs::symlink_status(file, ignored)))
    return app::all_well;
  fmt::print(stderr,
             "ravelin: '{}' could not be deleted; check that it is a file and that its "
             "directory may be written\n",
             printable(file.native()));
  return app::failed;
}

/// A write that fails in the middle of a download ends the process; people get one sentence.
[[noreturn]] void say_why_and_leave() {
  try {
    if (const auto error = std::current_exception())
      std::rethrow_exception(error);
    std::fputs("ravelin: ended by a fault of its own\n", stderr);
  } catch (const std::system_error& error) {
    fmt::print(stderr,
               "\nravelin: {}; make room or mend the disk, then run the same command to "
               "continue\n",
               error.what());
  } catch (const std::exception& error) {
    fmt::print(stderr, "\nravelin: {}\n", error.what());
  }
  std::fflush(stderr);
  _exit(app::failed);
}

int for_each_file(const std::vector<fs::path>& files, int (*command)(const fs::path&)) {
  int status = app::all_well;
  for (const auto& file : files)
    status = std::max(status, command(file));
  return status;
}

} // namespace

int main(int argc, char** argv) {
  std::setlocale(LC_CTYPE, "");
  std::signal(SIGPIPE, SIG_IGN);
  std::set_terminate(say_why_and_leave);
  const auto [options, exit_status] = app::parse_arguments(argc, argv);
  if (exit_status)
    return *exit_status;
  if (options.command == app::Options::status)
    return for_each_file(options.files, show_status);
  if (options.command == app::Options::clear)
    return for_each_file(options.files, clear);
  return app::run_get(options.get_options);
}
