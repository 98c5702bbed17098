// Linked into a second build of the program. RAVELIN_FAULT="MODE NTH SEED DIRECTORY LOG" decides
// what happens at the nth file call: `fail` makes it fail, `kill` ends the process there, and `cut`
// cuts the power: DIRECTORY.cut then holds what a journaling file system would have kept of
// DIRECTORY. LOG tells which call it was.
#include "platform/files/file_calls.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <string>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace {
namespace fs = std::filesystem;

struct File {
  std::string safe; // the flushed content
  std::map<std::string, std::string> attributes;
  std::vector<std::pair<off_t, std::string>> pending; // writes; an empty one cuts the file there
};
using FilePtr = std::shared_ptr<File>;

void apply(File& file, off_t offset, const std::string& bytes) {
  const auto at = static_cast<std::size_t>(offset);
  if (bytes.empty() || file.safe.size() < at + bytes.size())
    file.safe.resize(at + bytes.size());
  file.safe.replace(at, bytes.size(), bytes);
}

// What storage holds of one directory. Contents reach it by a flush of the file, names and
// attributes in the order of their changes by a flush of the directory.
class Storage {
public:
  explicit Storage(fs::path directory) : directory_(std::move(directory)) {
    for (const auto& entry : fs::directory_iterator(directory_)) {
      const auto file = std::make_shared<File>();
      std::ifstream in(entry.path(), std::ios::binary);
      file->safe.assign(std::istreambuf_iterator<char>(in), {});
      char value[64];
      const auto size = ::getxattr(entry.path().c_str(), mark, value, sizeof value);
      if (size >= 0)
        file->attributes[mark] = std::string(value, static_cast<std::size_t>(size));
      names_[entry.path()] = safe_names_[entry.path()] = file;
    }
  }

  void opened(int descriptor, const fs::path& path, int flags) {
    if (path == directory_)
      directories_.insert(descriptor);
    if (path.parent_path() != directory_)
      return;
    auto& file = names_[path];
    if (!file) {
      file = std::make_shared<File>();
      log_.push_back([this, path, file = file] { safe_names_[path] = file; });
    } else if (flags & O_TRUNC) {
      file->pending.emplace_back(0, "");
    }
    files_[descriptor] = file;
  }
  void closed(int descriptor) {
    directories_.erase(descriptor);
    files_.erase(descriptor);
  }
  void written(int descriptor, off_t offset, std::string bytes) {
    if (const auto found = files_.find(descriptor); found != files_.end())
      found->second->pending.emplace_back(offset, std::move(bytes));
  }
  void flushed(int descriptor) {
    if (const auto found = files_.find(descriptor); found != files_.end()) {
      for (const auto& [offset, bytes] : found->second->pending)
        apply(*found->second, offset, bytes);
      found->second->pending.clear();
    }
    if (directories_.contains(descriptor))
      run_log(log_.size());
  }
  void renamed(const fs::path& from, const fs::path& to) {
    names_[to] = names_[from];
    names_.erase(from);
    log_.push_back([this, from, to] {
      safe_names_[to] = safe_names_[from];
      safe_names_.erase(from);
    });
  }
  void unlinked(const fs::path& path) {
    names_.erase(path);
    log_.push_back([this, path] { safe_names_.erase(path); });
  }
  void attributed(const fs::path& path, const std::string& name, const char* value) {
    if (const auto found = names_.find(path); found != names_.end())
      log_.push_back([file = found->second, name, text = std::string(value ? value : "")] {
        if (text.empty())
          file->attributes.erase(name);
        else
          file->attributes[name] = text;
      });
  }

  // Half of the time nothing survives that was not flushed, else a part of it by chance.
  void cut(std::mt19937& random) {
    const auto chance = [&](std::size_t n) { return static_cast<std::size_t>(random() % n); };
    const bool nothing_more = chance(2) == 0;
    run_log(nothing_more ? 0 : chance(log_.size() + 1));
    const auto target = directory_.native() + ".cut";
    fs::create_directory(target);
    for (const auto& [path, file] : safe_names_) {
      for (const auto& [offset, bytes] : file->pending)
        if (!nothing_more && chance(2) == 0)
          apply(*file, offset, bytes.substr(0, bytes.size() - chance(bytes.size() / 2 + 1)));
      const auto copy = target / path.filename();
      std::ofstream(copy, std::ios::binary) << file->safe;
      for (const auto& [name, value] : file->attributes)
        ::setxattr(copy.c_str(), name.c_str(), value.data(), value.size(), 0);
    }
  }

private:
  static constexpr const char* mark = "user.lg_ignore";

  void run_log(std::size_t count) {
    const auto end = log_.begin() + static_cast<std::ptrdiff_t>(count);
    for (auto step = log_.begin(); step != end; ++step)
      (*step)();
    log_.erase(log_.begin(), end);
  }

  fs::path directory_;
  std::map<fs::path, FilePtr> names_, safe_names_; // as processes see them, and as storage does
  std::vector<std::function<void()>> log_;         // changes of names that are not flushed
  std::map<int, FilePtr> files_;
  std::set<int> directories_;
};

class FaultyCalls final : public ravelin::platform::FileCalls {
public:
  explicit FaultyCalls(const char* fault) {
    std::istringstream(fault) >> mode_ >> left_ >> seed_ >> directory_ >> log_;
    storage_ = std::make_unique<Storage>(directory_);
    ravelin::platform::set_file_calls(this);
  }

  int open(const char* path, int flags, mode_t mode) override {
    const std::lock_guard lock(mutex_);
    const int result = fails("open", path) ? -1 : FileCalls::open(path, flags, mode);
    if (result >= 0) {
      open_.insert(result);
      storage_->opened(result, path, flags);
    }
    return result;
  }
  int close(int descriptor) override {
    const std::lock_guard lock(mutex_);
    open_.erase(descriptor);
    storage_->closed(descriptor);
    return FileCalls::close(descriptor);
  }
  ssize_t pwrite(int descriptor, const void* bytes, std::size_t size, off_t offset) override {
    const std::lock_guard lock(mutex_);
    if (fails("pwrite", descriptor))
      return -1;
    storage_->written(descriptor, offset, std::string(static_cast<const char*>(bytes), size));
    return FileCalls::pwrite(descriptor, bytes, size, offset);
  }
  int fdatasync(int descriptor) override { return flush("fdatasync", descriptor); }
  int fsync(int descriptor) override { return flush("fsync", descriptor); }
  int ftruncate(int descriptor, off_t size) override {
    const std::lock_guard lock(mutex_);
    if (fails("ftruncate", descriptor))
      return -1;
    storage_->written(descriptor, size, "");
    return FileCalls::ftruncate(descriptor, size);
  }
  int reserve(int descriptor, off_t size) override {
    const std::lock_guard lock(mutex_);
    return fails("reserve", descriptor) ? -1 : FileCalls::reserve(descriptor, size);
  }
  int rename(const char* from, const char* to) override {
    const std::lock_guard lock(mutex_);
    const int result = fails("rename", to) ? -1 : FileCalls::rename(from, to);
    if (result == 0)
      storage_->renamed(from, to);
    return result;
  }
  int unlink(const char* path) override {
    const std::lock_guard lock(mutex_);
    const int result = fails("unlink", path) ? -1 : FileCalls::unlink(path);
    if (result == 0)
      storage_->unlinked(path);
    return result;
  }
  int setxattr(const char* path, const char* name, const void* value, std::size_t size) override {
    const std::lock_guard lock(mutex_);
    if (fails("setxattr", path))
      return -1;
    storage_->attributed(path, name, std::string(static_cast<const char*>(value), size).c_str());
    return FileCalls::setxattr(path, name, value, size);
  }
  int removexattr(const char* path, const char* name) override {
    const std::lock_guard lock(mutex_);
    if (fails("removexattr", path))
      return -1;
    storage_->attributed(path, name, nullptr);
    return FileCalls::removexattr(path, name);
  }

  void say_what_is_left_open() {
    const std::lock_guard lock(mutex_);
    if (!open_.empty())
      std::ofstream(log_, std::ios::app) << "left open: " << open_.size() << '\n';
  }

private:
  int flush(const char* call, int descriptor) {
    const std::lock_guard lock(mutex_);
    if (fails(call, descriptor))
      return -1;
    storage_->flushed(descriptor);
    return call == std::string("fsync") ? FileCalls::fsync(descriptor)
                                        : FileCalls::fdatasync(descriptor);
  }

  bool fails(const char* call, int descriptor) {
    return fails(call, fs::read_symlink("/proc/self/fd/" + std::to_string(descriptor)));
  }
  bool fails(const char* call, const fs::path& path) {
    if (--left_ != 0)
      return false;
    std::ofstream(log_) << call << ' ' << path.filename().native() << std::endl;
    if (mode_ == "fail") {
      errno = seed_ % 2 ? ENOSPC : EIO;
      return true;
    }
    if (mode_ == "cut") {
      std::mt19937 random(seed_);
      storage_->cut(random);
    }
    ::kill(::getpid(), SIGKILL);
    for (;;)
      ::pause();
  }

  std::mutex mutex_;
  std::string mode_;
  long left_ = 0; // calls until the fault
  unsigned seed_ = 0;
  fs::path directory_, log_;
  std::unique_ptr<Storage> storage_;
  std::set<int> open_;
};

FaultyCalls* const calls = [] {
  const auto* const fault = std::getenv("RAVELIN_FAULT");
  auto* const made = fault ? new FaultyCalls(fault) : nullptr;
  if (made)
    std::atexit([] { calls->say_what_is_left_open(); });
  return made;
}();

} // namespace
