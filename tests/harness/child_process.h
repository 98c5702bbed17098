#pragma once

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace test {

// A program run by a test. It ends with this object, and also when the thread that started it
// ends or is killed.
class ChildProcess {
public:
  // The first argument is the program, looked for in PATH and in the system's directories. Both
  // streams of output are appended to a file, or thrown away. Only 0 to 2 are open descriptors.
  explicit ChildProcess(std::vector<std::string> arguments,
                        const std::filesystem::path& output = "/dev/null");
  ~ChildProcess();
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  // The exit status, or 128 and the signal's number, as a shell tells it.
  int wait();
  // The same if it has ended already.
  std::optional<int> poll();
  // SIGTERM, and SIGKILL if that is not enough.
  void stop();

private:
  std::optional<int> reap(int flags);

  pid_t pid_ = -1;
  std::optional<int> result_;
};

} // namespace test
