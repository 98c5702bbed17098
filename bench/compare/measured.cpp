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

// Runs a program, discards its output, and prints:
//   exit status, wall seconds, CPU seconds, peak memory in KiB, maximum number of threads
//
//   measured [--threads] PROGRAM [ARGUMENT...]
//
// This program is small because the reported peak memory of a child includes the time between fork
// and exec, when it is a copy of its parent. Threads are sampled every 10 ms with --threads only;
// otherwise their number is 0.

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

[[noreturn]] void execute(char** command) {
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
  const bool count_threads = argc > 1 && std::string_view(argv[1]) == "--threads";
  char** const command = argv + (count_threads ? 2 : 1);
  if (!*command)
    return 2;
  const auto start = Clock::now();
  const pid_t child = fork();
  if (child < 0) {
    std::perror("fork");
    return 1;
  }
  if (child == 0)
    execute(command);
  int status = 0;
  int threads = 0;
  rusage usage{};
  while (wait4(child, &status, count_threads ? WNOHANG : 0, &usage) != child) {
    threads = std::max(threads, threads_of(child));
    usleep(10'000);
  }
  const std::chrono::duration<double> wall = Clock::now() - start;
  std::printf("%d %.6f %.6f %ld %d\n", exit_status(status), wall.count(),
              seconds(usage.ru_utime) + seconds(usage.ru_stime), usage.ru_maxrss, threads);
  return 0;
}
