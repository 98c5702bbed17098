#include "tests/harness/child_process.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <thread>

#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace test {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

std::string find_program(const std::string& name) {
  if (name.find('/') != name.npos) {
    return name;
  }
  const char* path = std::getenv("PATH");
  const std::string places = std::string(path ? path : "") + ":/usr/sbin:/usr/bin:/sbin:/bin";
  for (std::size_t at = 0; at < places.size();) {
    const std::size_t end = std::min(places.find(':', at), places.size());
    const fs::path file = fs::path(places.substr(at, end - at)) / name;
    if (end > at && access(file.c_str(), X_OK) == 0) {
      return file.string();
    }
    at = end + 1;
  }
  throw std::runtime_error("program not found: " + name);
}

std::vector<char*> with_null(std::vector<std::string>& strings) {
  std::vector<char*> result;
  for (auto& string : strings) {
    result.push_back(string.data());
  }
  result.push_back(nullptr);
  return result;
}

class File {
public:
  File(const fs::path& path, int flags) : number_(open(path.c_str(), flags | O_CLOEXEC, 0600)) {
    if (number_ < 0) {
      throw std::system_error(errno, std::generic_category(), path.string());
    }
  }
  ~File() { close(number_); }
  File(const File&) = delete;
  File& operator=(const File&) = delete;

  int number() const { return number_; }

private:
  int number_;
};

// What the child does; only calls that are safe after a fork in a program with threads.
struct Launch {
  const char* program;
  char* const* arguments;
  int input;
  int output;
  pid_t parent;

  [[noreturn]] void run() const {
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) {
      _exit(127); // the parent died before it could be watched
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    dup2(input, 0);
    dup2(output, 1);
    dup2(output, 2);
    // A socket of the test that lived on in here would never look closed to its peer.
    close_range(3, ~0u, 0);
    execv(program, arguments);
    _exit(127);
  }
};

} // namespace

ChildProcess::ChildProcess(std::vector<std::string> arguments, const fs::path& output) {
  const std::string program = find_program(arguments.at(0));
  const File in("/dev/null", O_RDONLY);
  const File out(output, O_WRONLY | O_CREAT | O_APPEND);
  const auto pointers = with_null(arguments);
  const Launch launch{program.c_str(), pointers.data(), in.number(), out.number(), getpid()};
  pid_ = fork();
  if (pid_ == 0) {
    launch.run();
  }
  if (pid_ < 0) {
    throw std::system_error(errno, std::generic_category(), "fork");
  }
}

ChildProcess::~ChildProcess() {
  stop();
}

int ChildProcess::wait() {
  return reap(0).value();
}

std::optional<int> ChildProcess::poll() {
  return reap(WNOHANG);
}

void ChildProcess::stop() {
  if (poll()) {
    return; // its number may belong to another process by now
  }
  kill(pid_, SIGTERM);
  const auto limit = std::chrono::steady_clock::now() + 5s;
  while (!poll() && std::chrono::steady_clock::now() < limit) {
    std::this_thread::sleep_for(2ms);
  }
  if (!result_) {
    kill(pid_, SIGKILL);
    wait();
  }
}

std::optional<int> ChildProcess::reap(int flags) {
  int status = 0;
  pid_t ended = 0;
  while (!result_ && (ended = waitpid(pid_, &status, flags)) == -1 && errno == EINTR) {
  }
  if (!result_ && ended == pid_) {
    result_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  }
  return result_;
}

} // namespace test
