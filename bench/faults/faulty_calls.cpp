// Linked into a second build of the program. RAVELIN_FAULT="MODE NTH SEED DIRECTORY" decides what
// happens at the nth file call: `fail` makes it fail, `kill` ends the process there, and `cut` cuts
// the power: DIRECTORY.cut then holds what a journaling file system would have kept of DIRECTORY.
// Standard error tells which call it was.
#include "tests/harness/faulty_files.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <random>
#include <sstream>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {
namespace fs = std::filesystem;

constexpr const char* mark = "user.lg_ignore"; // of a file that is not complete

fs::path link_of(int file) {
  return "/proc/self/fd/" + std::to_string(file);
}
std::string content_of(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  return {std::istreambuf_iterator<char>(in), {}};
}
ino_t number_of(const fs::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status), status.st_ino;
}

// Keeps account of what storage holds of the directory: contents as of the last flush of the file,
// names and marks as of the last one of the directory, or after some of the changes since.
class Disk {
public:
  explicit Disk(const char* fault) {
    std::istringstream(fault) >> mode_ >> left_ >> seed_ >> directory_;
    note_names();
    for (auto& [number, kept] : kept_)
      kept.content = content_of(link_of(kept.held));
  }

private:
  struct Kept {
    int held = -1;       // so that no other file gets its number
    std::string content; // as of the last flush of the file
  };

  int error_of(std::string_view call, const fs::path& path) {
    const std::lock_guard lock(mutex_);
    note_names(); // as the calls before this one have left them
    if (--left_ != 0) {
      if (path == directory_)
        states_.erase(states_.begin(), states_.end() - 1);
      else if (call == "fdatasync" || call == "fsync")
        kept_[number_of(path)].content = content_of(path);
      return 0;
    }
    std::fprintf(stderr, "fault at %s %s\n", call.data(), path.filename().c_str());
    if (mode_ == "cut")
      cut_power();
    if (mode_ != "fail")
      ::kill(::getpid(), SIGKILL);
    return seed_ % 2 ? ENOSPC : EIO;
  }
  void note_names() {
    auto& names = states_.emplace_back();
    for (const auto& entry : fs::directory_iterator(directory_)) {
      char text[64];
      const auto size = ::getxattr(entry.path().c_str(), mark, text, sizeof text);
      const auto number = number_of(entry);
      names[entry.path().filename()] = {
          number, size < 0 ? "" : std::string(text, static_cast<std::size_t>(size))};
      if (kept_[number].held < 0)
        kept_[number].held = ::open(entry.path().c_str(), O_RDONLY | O_CLOEXEC);
    }
  }
  // Half of the time nothing survives that was not flushed, else a part of it by chance.
  void cut_power() {
    std::mt19937 random(seed_);
    const bool more = random() % 2;
    const fs::path target = directory_.native() + ".cut";
    fs::create_directory(target);
    for (const auto& [name, file] : states_[more ? random() % states_.size() : 0]) {
      auto& [held, content] = kept_[file.first];
      const auto now = content_of(link_of(held));
      for (std::size_t at = 0; at < now.size() && more; at += 4096)
        if (random() % 2) {
          content.resize(std::max(content.size(), std::min(at + 4096, now.size())));
          content.replace(at, 4096, now, at, 4096);
        }
      std::ofstream(target / name, std::ios::binary) << content;
      if (!file.second.empty())
        ::setxattr((target / name).c_str(), mark, file.second.data(), file.second.size(), 0);
    }
  }

  std::mutex mutex_;
  std::string mode_;
  long left_ = 0; // calls until the fault
  unsigned seed_ = 0;
  fs::path directory_;
  std::vector<std::map<std::string, std::pair<ino_t, std::string>>> states_; // with marks
  std::map<ino_t, Kept> kept_;
  const test::FaultyFiles calls_{
      [this](std::string_view call, const std::string& path) { return error_of(call, path); }};
};

const auto* const fault = std::getenv("RAVELIN_FAULT");
const auto* const disk = fault ? new Disk(fault) : nullptr; // for threads that outlive `main`

} // namespace
