// Linked into a second build of the program. RAVELIN_FAULT="MODE NTH SEED DIRECTORY" decides what
// happens at the nth file call: `fail` makes it fail, `kill` ends the process there, and `cut` cuts
// the power: DIRECTORY.cut then holds what a journaling file system would have kept of DIRECTORY.
// Standard error tells which call it was.
#include "platform/files/file_calls.h"

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
using Real = ravelin::platform::FileCalls;

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
class FaultyCalls final : public Real {
public:
  explicit FaultyCalls(const char* fault) {
    std::istringstream(fault) >> mode_ >> left_ >> seed_ >> directory_;
    note_names();
    for (auto& [number, kept] : kept_)
      kept.content = content_of(link_of(kept.held));
    ravelin::platform::set_file_calls(this);
  }
  int open(const char* path, int flags, mode_t mode) override {
    return fails("open", path) ? -1 : Real::open(path, flags, mode);
  }
  ssize_t pwrite(int file, const void* bytes, std::size_t size, off_t offset) override {
    return fails("pwrite", file) ? -1 : Real::pwrite(file, bytes, size, offset);
  }
  int fdatasync(int file) override { return fails("fdatasync", file) ? -1 : Real::fdatasync(file); }
  int fsync(int file) override { return fails("fsync", file) ? -1 : Real::fsync(file); }
  int ftruncate(int file, off_t size) override {
    return fails("ftruncate", file) ? -1 : Real::ftruncate(file, size);
  }
  int reserve(int file, off_t size) override {
    return fails("reserve", file) ? -1 : Real::reserve(file, size);
  }
  int rename(const char* from, const char* to) override {
    return fails("rename", to) ? -1 : Real::rename(from, to);
  }
  int unlink(const char* path) override { return fails("unlink", path) ? -1 : Real::unlink(path); }
  int setxattr(const char* path, const char* name, const void* value, std::size_t size) override {
    return fails("setxattr", path) ? -1 : Real::setxattr(path, name, value, size);
  }
  int removexattr(const char* path, const char* name) override {
    return fails("removexattr", path) ? -1 : Real::removexattr(path, name);
  }

  void say_what_is_left_open() {
    const std::lock_guard lock(mutex_);
    auto left = -std::ssize(kept_);
    std::error_code gone;
    for (const auto& file : fs::directory_iterator("/proc/self/fd"))
      left += fs::read_symlink(file, gone).native().starts_with(directory_.native());
    if (left > 0)
      std::fprintf(stderr, "left open: %td\n", left);
  }

private:
  struct Kept {
    int held = -1;       // so that no other file gets its number
    std::string content; // as of the last flush of the file
  };

  bool fails(const char* call, int file) { return fails(call, fs::read_symlink(link_of(file))); }
  bool fails(const std::string& call, const fs::path& path) {
    const std::lock_guard lock(mutex_);
    note_names(); // as the calls before this one have left them
    if (--left_ != 0) {
      if (path == directory_)
        states_.erase(states_.begin(), states_.end() - 1);
      else if (call == "fdatasync" || call == "fsync")
        kept_[number_of(path)].content = content_of(path);
      return false;
    }
    std::fprintf(stderr, "fault at %s %s\n", call.c_str(), path.filename().c_str());
    if (mode_ == "cut")
      cut_power();
    if (mode_ != "fail")
      ::kill(::getpid(), SIGKILL);
    errno = seed_ % 2 ? ENOSPC : EIO;
    return true;
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
};

const auto* const fault = std::getenv("RAVELIN_FAULT");
auto* const calls = fault ? new FaultyCalls(fault) : nullptr; // for threads that outlive `main`
const bool ends = calls && std::atexit([] { calls->say_what_is_left_open(); }) == 0;

} // namespace
