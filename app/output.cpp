#include "app/output.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <string>
#include <unistd.h>
#include <utility>

namespace ravelin::app {
namespace {

int lost_by = 0; // the errno of the first line that was not taken; main thread

} // namespace

void fill_standard_descriptors() {
  int made = ::open("/dev/null", O_RDWR); // the lowest number that is free
  while (made >= 0 && made <= STDERR_FILENO)
    made = ::open("/dev/null", O_RDWR);
  if (made >= 0)
    ::close(made);
}

void tell(std::string_view text) noexcept {
  std::fwrite(text.data(), 1, text.size(), stderr);
  std::fflush(stderr);
}

void print_line(std::string_view line) noexcept {
  errno = 0;
  const bool taken = std::fwrite(line.data(), 1, line.size(), stdout) == line.size() &&
                     std::fputc('\n', stdout) != EOF && std::fflush(stdout) == 0;
  if (!taken && lost_by == 0)
    lost_by = errno != 0 ? errno : EIO;
}

bool all_was_printed() noexcept {
  static bool said = false;
  if (lost_by == 0)
    return true;
  if (!std::exchange(said, true) && lost_by != EPIPE)
    tell(std::string("ravelin: could not write to standard output: ") + std::strerror(lost_by) +
         "\n");
  return false;
}

} // namespace ravelin::app
