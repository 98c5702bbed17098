#include "app/get_command.h"
#include "app/leftovers.h"
#include "app/naming.h"
#include "app/options.h"
#include "app/output.h"
#include "app/process_lock.h"
#include "ravelin/ravelin_operation.h"
#include "src/FileProcessor.h"

#include <fmt/core.h>

#include <algorithm>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <exception>
#include <unistd.h>

namespace ravelin::app {
namespace {

namespace fs = std::filesystem;

int fail(const fs::path& file, const std::string& why) {
  tell(fmt::format("ravelin: '{}' {}\n", printable(file.native()), why));
  return failed;
}

std::string words_of(const fs::path& file) {
  const auto progress = RavelinOperation::get_progress(URL::file(file));
  if (!progress.content_length || !progress.prog_value)
    return fmt::format("{} bytes received, length unknown; starts anew when continued",
                       progress.received_bytes);
  return fmt::format("{:.1f}% ({} of {} bytes), {}",
                     static_cast<double>(*progress.prog_value) * 100, progress.received_bytes,
                     *progress.content_length,
                     can_continue(file) ? "can be continued" : "starts anew when continued");
}

int show_status(const fs::path& file) {
  std::error_code unknown;
  const auto kind = fs::status(file, unknown).type();
  if (kind == fs::file_type::none)
    return fail(file, "cannot be looked at: " + unknown.message());
  if (kind == fs::file_type::directory)
    return fail(file, "is a directory; name the file that is downloaded");
  const auto shown = printable(file.native());
  const bool there = kind != fs::file_type::not_found;
  if (fs::exists(record_of(file), unknown)) {
    print_line(shown + ": " + words_of(file));
    return all_well;
  }
  print_line(shown + (there ? ": complete, or not downloaded by ravelin" : ": no such download"));
  return there ? all_well : failed;
}

/// Also when it cannot be looked at.
bool may_be_there(const fs::path& file) {
  std::error_code ignored;
  return fs::symlink_status(file, ignored).type() != fs::file_type::not_found;
}

int clear(const fs::path& file) {
  ProcessLock lock(file);
  if (lock.held_by_another())
    return fail(file, "is being downloaded; stop that first");
  const bool owns_record = lock.other_owner().empty();
  if (owns_record) {
    RavelinOperation::clear_files(URL::file(file));
  } else {
    try {
      FileProcessor::delete_main_file(URL::file(file));
    } catch (const std::exception&) {
      // Said below.
    }
  }
  if (may_be_there(file))
    return fail(file, "could not be deleted; check that it is a file and that its directory may be "
                      "written");
  if (owns_record && may_be_there(record_of(file)))
    return fail(record_of(file), "could not be deleted; remove it by hand");
  return all_well;
}

/// A write that fails in the middle of a download ends the process; people get one sentence.
[[noreturn]] void say_why_and_leave() {
  try {
    if (const auto error = std::current_exception())
      std::rethrow_exception(error);
    tell("ravelin: ended by a fault of its own\n");
  } catch (const std::system_error& error) {
    tell(fmt::format(
        "\nravelin: {}; make room or mend the disk, then run the same command to continue\n",
        error.what()));
  } catch (const std::exception& error) {
    tell(fmt::format("\nravelin: {}\n", error.what()));
  }
  _exit(failed);
}

int for_each_file(const std::vector<fs::path>& files, int (*command)(const fs::path&)) {
  int status = all_well;
  for (const auto& file : files)
    status = std::max(status, command(file));
  return status;
}

int run(const Options& options) {
  switch (options.command) {
  case Options::status:
    return for_each_file(options.files, show_status);
  case Options::clear:
    return for_each_file(options.files, clear);
  default:
    return run_get(options.get_options);
  }
}

} // namespace
} // namespace ravelin::app

int main(int argc, char** argv) {
  using namespace ravelin::app;
  fill_standard_descriptors();
  std::setlocale(LC_CTYPE, "");
  std::signal(SIGPIPE, SIG_IGN);
  std::set_terminate(say_why_and_leave);
  const auto [options, exit_status] = parse_arguments(argc, argv);
  if (exit_status)
    return *exit_status;
  const int status = run(options);
  return all_was_printed() ? status : std::max<int>(status, failed);
}
