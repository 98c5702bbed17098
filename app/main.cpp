#include "app/get_command.h"
#include "app/naming.h"
#include "app/options.h"
#include "app/output.h"

#include <ravelin/ravelin.hpp>

#include <fmt/core.h>

#include <algorithm>
#include <clocale>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <exception>
#include <unistd.h>

namespace ravelin::app {
namespace {

namespace fs = std::filesystem;

int fail(const fs::path& file, const std::string& why) {
  print_to_stderr(fmt::format("ravelin: '{}' {}\n", printable(file.native()), why));
  return failed;
}

std::string describe_state(const RavelinOperation::FileState& state) {
  const auto& progress = state.progress;
  if (!state.record_owner.empty())
    return "its resume record is used by '" + printable(state.record_owner) + "'";
  const auto next = state.can_continue ? "can be resumed" : "will restart when resumed";
  if (!progress.content_length || !progress.prog_value || !std::isfinite(*progress.prog_value))
    return fmt::format("{} bytes received, length unknown; {}", progress.received_bytes, next);
  return fmt::format("{:.1f}% ({} of {} bytes), {}",
                     static_cast<double>(*progress.prog_value) * 100, progress.received_bytes,
                     *progress.content_length, next);
}

int show_status(const fs::path& file) {
  std::error_code error;
  const auto type = fs::status(file, error).type();
  if (type == fs::file_type::none)
    return fail(file, "cannot be accessed: " + error.message());
  if (type == fs::file_type::directory)
    return fail(file, "is a directory; give the name of the downloaded file");
  const auto state = RavelinOperation::get_file_state(URL::file(file));
  const auto shown = printable(file.native());
  if (state.is_unfinished) {
    print_line(shown + ": " + describe_state(state) + (state.is_in_use ? ", in progress" : ""));
    return success;
  }
  print_line(shown +
             (state.exists ? ": complete, or not downloaded by ravelin" : ": no such download"));
  return state.exists ? success : failed;
}

/// True also if the file cannot be accessed.
bool may_exist(const fs::path& file) {
  std::error_code ignored;
  return fs::symlink_status(file, ignored).type() != fs::file_type::not_found;
}

int clear(const fs::path& file, bool complete_too) {
  const auto url = URL::file(file);
  const auto state = RavelinOperation::get_file_state(url);
  const auto shown = printable(file.native());
  if (state.is_in_use)
    return fail(file, "is being downloaded; stop the download first");
  if (!may_exist(file) && !state.is_unfinished)
    return fail(file, "does not exist");
  if (!state.is_unfinished && !complete_too)
    return fail(file, "is complete or was not downloaded by ravelin; use --complete to delete it "
                      "anyway");
  RavelinOperation::clear_files(url);
  if (may_exist(file))
    return fail(file, "could not be deleted; check that it is a file and that its directory is "
                      "writable");
  if (state.record_owner.empty() && may_exist(state.resume_file.path()))
    return fail(state.resume_file.path(), "could not be deleted; delete it by hand");
  print_line(shown + ": deleted");
  return success;
}

/// The terminate handler: prints the reason in one sentence.
[[noreturn]] void report_and_exit() {
  try {
    if (const auto error = std::current_exception())
      std::rethrow_exception(error);
    print_to_stderr("ravelin: terminated by an internal error\n");
  } catch (const std::system_error& error) {
    print_to_stderr(fmt::format(
        "\nravelin: {}; free up space or repair the disk, then run the same command to resume\n",
        error.what()));
  } catch (const std::exception& error) {
    print_to_stderr(fmt::format("\nravelin: {}\n", error.what()));
  }
  _exit(failed);
}

template <class Command>
int for_each_file(const std::vector<fs::path>& files, const Command& command) {
  int status = success;
  for (const auto& file : files)
    status = std::max(status, command(file));
  return status;
}

int run(const Arguments& options) {
  switch (options.command) {
  case Arguments::status:
    return for_each_file(options.files, show_status);
  case Arguments::clear:
    return for_each_file(options.files,
                         [&](const auto& file) { return clear(file, options.clear_complete); });
  default:
    return run_get(options.get_options);
  }
}

} // namespace
} // namespace ravelin::app

int main(int argc, char** argv) {
  using namespace ravelin::app;
  open_standard_descriptors();
  std::setlocale(LC_CTYPE, "");
  std::signal(SIGPIPE, SIG_IGN);
  std::signal(SIGXFSZ, SIG_IGN); // the write fails instead
  std::set_terminate(report_and_exit);
  const auto [options, exit_status] = parse_arguments(argc, argv);
  if (exit_status)
    return *exit_status;
  const int status = run(options);
  return output_succeeded() ? status : std::max<int>(status, failed);
}
