#include "app/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace ravelin::app {
namespace {

bool is_stdout_missing = false; // written once, at the start
int output_errno = 0;           // of the first line that could not be written; main thread only

} // namespace

void open_standard_descriptors() {
  is_stdout_missing = ::fcntl(STDOUT_FILENO, F_GETFD) < 0;
  int opened = ::open("/dev/null", O_RDWR); // gets the lowest free number
  while (opened >= 0 && opened <= STDERR_FILENO)
    opened = ::open("/dev/null", O_RDWR);
  if (opened >= 0)
    ::close(opened);
}

void print_to_stderr(std::string_view text) noexcept {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

std::error_code write_to_stdout(std::string_view bytes) noexcept {
  if (is_stdout_missing)
    return std::make_error_code(std::errc::bad_file_descriptor);
  while (!bytes.empty()) {
    const auto written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
    if (written >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(written));
    } else if (errno == EAGAIN) { // whoever shares it has made it non-blocking
      pollfd writable{STDOUT_FILENO, POLLOUT, 0};
      ::poll(&writable, 1, -1);
    } else if (errno != EINTR) {
      return {errno, std::generic_category()};
    }
  }
  return {};
}

void print_line(std::string_view line) noexcept {
  errno = is_stdout_missing ? EBADF : 0;
  const bool written = !is_stdout_missing &&
                       std::fwrite(line.data(), 1, line.size(), stdout) == line.size() &&
                       std::fputc('\n', stdout) != EOF && std::fflush(stdout) == 0;
  if (!written && output_errno == 0)
    output_errno = errno != 0 ? errno : EIO;
}

bool output_succeeded() noexcept {
  static bool is_reported = false;
  if (output_errno == 0)
    return true;
  if (!std::exchange(is_reported, true) && output_errno != EPIPE)
    print_to_stderr(std::string("ravelin: could not write to standard output: ") +
                    std::strerror(output_errno) + "\n");
  return false;
}

} // namespace ravelin::app
