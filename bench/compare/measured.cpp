#include <algorithm>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

// Runs a program, its output thrown away, and prints what that took:
//   exit status, wall seconds, CPU seconds, peak memory in KiB, most threads seen
//
//   measured [--threads] PROGRAM [ARGUMENT...]
//
// It is small itself on purpose: the peak that the system tells of a process counts from before
// its exec, when it was a copy of the one that started it. Threads are looked at every 10 ms, and
// only when asked for; otherwise the last figure is 0.

namespace {

using Clock = std::chrono::steady_clock;

double seconds(const timeval& time) {
  return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_usec) / 1e6;
}

int threads_of(pid_t process) {
  std::ifstream status("/proc/" + std::to_string(process) + "/status");
  for (std::string line; std::getline(status, line);)
    if (line.starts_with("Threads:"))
      return std::stoi(line.substr(8));
  return 0;
}

[[noreturn]] void become(char** command) {
  dup2(open("/dev/null", O_WRONLY | O_CLOEXEC), STDOUT_FILENO);
  execvp(command[0], command);
  std::perror(command[0]);
  _exit(127);
}

int exit_status(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

} // namespace

int main(int argc, char** argv) {
  const bool watch = argc > 1 && std::string_view(argv[1]) == "--threads";
  char** const command = argv + (watch ? 2 : 1);
  if (!*command)
    return 2;
  const auto start = Clock::now();
  const pid_t child = fork();
  if (child < 0) {
    std::perror("fork");
    return 1;
  }
  if (child == 0)
    become(command);
  int status = 0;
  int threads = 0;
  rusage usage{};
  while (wait4(child, &status, watch ? WNOHANG : 0, &usage) != child) {
    threads = std::max(threads, threads_of(child));
    usleep(10'000);
  }
  const std::chrono::duration<double> wall = Clock::now() - start;
  std::printf("%d %.6f %.6f %ld %d\n", exit_status(status), wall.count(),
              seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss, threads);
  return 0;
}
