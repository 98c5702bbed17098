#pragma once

#include "tests/harness/child_process.h"
#include "tests/harness/temp_dir.h"

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sys/types.h>

namespace test {

// The built program at work. What it says is kept apart: `out()` and `err()`.
class Program {
public:
  struct Setting {
    std::vector<std::string> wrapper{}; // a command that runs the program, such as env or setpriv
    std::filesystem::path program{};    // empty: the one of this build
  };

  explicit Program(const std::vector<std::string>& arguments) : Program(arguments, Setting()) {}
  Program(const std::vector<std::string>& arguments, const Setting& setting);

  static constexpr int hung = -1;
  // The exit status as a shell tells it, or `hung` when the time is over: it is killed then.
  int wait(std::chrono::seconds at_most = std::chrono::seconds(60));
  bool runs() { return !process_->poll(); }
  void signal(int number) const;

  std::string out() const { return dir_.read("out"); }
  std::string err() const { return dir_.read("err"); }

private:
  TempDir dir_;
  pid_t pid_ = 0;
  std::unique_ptr<ChildProcess> process_; // last, so that it ends before its files go
};

// Returns when the condition holds; throws after half a minute.
void await(const std::function<bool()>& holds);

} // namespace test
