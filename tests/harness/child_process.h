#pragma once

#include <chrono>
#include <csignal>
#include <filesystem>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {

// A program run by a test. It ends with this object, and also when the thread that started it ends
// or is killed.
class ChildProcess {
public:
  // The first argument is the program, which is looked for in PATH; 127 is the status of one that
  // cannot be run. Both streams of output are appended to a file, or dropped.
  explicit ChildProcess(std::vector<std::string> arguments,
                        const std::filesystem::path& output = "/dev/null") {
    std::vector<char*> pointers;
    for (auto& argument : arguments)
      pointers.push_back(argument.data());
    pointers.push_back(nullptr);
    pid_ = fork();
    if (pid_ != 0)
      return;
    // Only system calls: another thread may have held any lock at the fork.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const sigset_t none{};
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600), 1);
    dup2(1, 2);
    close_range(3, ~0U, 0); // a socket of the test would never look closed to its peer
    execvp(pointers[0], pointers.data());
    _exit(127);
  }
  ~ChildProcess() { stop(); }
  ChildProcess& operator=(ChildProcess&&) = delete;

  // The exit status if it has ended, or 128 and the signal's number, as a shell tells it.
  std::optional<int> poll(int flags = WNOHANG) {
    int status = 0;
    if (!result_ && waitpid(pid_, &status, flags) == pid_)
      result_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return result_;
  }
  int wait() { return poll(0).value(); }
  // SIGTERM, and SIGKILL if that is not enough.
  void stop() {
    for (int tries = 0; !poll(); ++tries) {
      kill(pid_, tries < 2500 ? SIGTERM : SIGKILL);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }

private:
  pid_t pid_;
  std::optional<int> result_;
};

} // namespace test
