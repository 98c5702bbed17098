#pragma once

#include "tests/harness/child_process.h"
#include "tests/harness/temp_dir.h"

#include <atomic>
#include <filesystem>
#include <functional>
#include <string>
#include <thread>
#include <vector>

namespace test {

struct Ran {
  int status; // 128 and the number of the signal that ended it; 124 when it hung
  std::string out, err;
};

// Runs a line of bash in a directory. `ravelin` is the program of this build, and $at where links
// begin.
inline Ran run(const std::filesystem::path& directory, const std::string& line,
               const std::string& at = "") {
  const TempDir said;
  ChildProcess shell({"timeout", "-k1", "60", "bash", "-c",
                      "PATH=" RAVELIN_DIRECTORY ":$PATH; "
                      R"(export at=$2; cd "$1" && exec >"$0/out" 2>"$0/err" && )" +
                          line,
                      said.path(), directory, at});
  const int status = shell.wait();
  return {status, said.read("out"), said.read("err")};
}

// Calls `job` with 0, 1, 2 and so on, several at a time, until one call returns false.
inline void in_parallel(const std::function<bool(int)>& job) {
  std::atomic<int> next = 0;
  std::atomic<bool> over = false;
  std::vector<std::jthread> threads;
  while (threads.size() < 6)
    threads.emplace_back([&] {
      while (!over && job(next++)) {
      }
      over = true;
    });
}

} // namespace test
