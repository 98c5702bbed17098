#include "platform/files/file_lock.h"

#include "platform/threads/main_call.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace ravelin::platform {

namespace {

std::string read_content(int descriptor) {
  char text[300];
  const auto size = ::pread(descriptor, text, sizeof text, 0);
  return {text, size > 0 ? static_cast<std::size_t>(size) : 0};
}

/// Somebody who only looks holds it for a moment.
bool lock_soon(int descriptor) {
  for (int attempt = 0; attempt < 20; ++attempt) {
    if (::flock(descriptor, LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK)
      return true;
    ::usleep(2000);
  }
  return false;
}

} // namespace

FileLock::Look FileLock::look(const std::filesystem::path& path) {
  const int descriptor = ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
  if (descriptor < 0)
    return {};
  const bool is_held = ::flock(descriptor, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
  Look found{read_content(descriptor), is_held};
  ::close(descriptor);
  return found;
}

FileLock::FileLock(std::filesystem::path path) : path_(std::move(path)) {
  take();
}

FileLock::~FileLock() {
  if (descriptor_ < 0)
    return;
  if (is_held() && !is_forked_child())
    ::flock(descriptor_, LOCK_UN); // a forked child may keep a copy of the descriptor
  ::close(descriptor_);
}

void FileLock::take() {
  constexpr int flags = O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  for (int attempt = 0; attempt < 100; ++attempt) {
    descriptor_ = ::open(path_.c_str(), O_RDWR | O_CREAT | flags, 0666);
    if (descriptor_ < 0 && errno == EACCES) // owned by another user; its lock still counts
      descriptor_ = ::open(path_.c_str(), O_RDONLY | flags);
    if (descriptor_ < 0)
      return;
    held_by_another_ = !lock_soon(descriptor_);
    if (held_by_another_ || path_names_our_file())
      return;
    ::close(std::exchange(descriptor_, -1)); // removed by its holder after we opened it
  }
}

bool FileLock::path_names_our_file() const {
  struct stat by_name {};
  struct stat ours {};
  return ::stat(path_.c_str(), &by_name) == 0 && ::fstat(descriptor_, &ours) == 0 &&
         by_name.st_ino == ours.st_ino && by_name.st_dev == ours.st_dev;
}

std::string FileLock::content() const {
  return descriptor_ < 0 ? std::string() : read_content(descriptor_);
}

/// A file with a second hard link may be someone else's and is not written to.
bool FileLock::set_content(const std::string& text) {
  struct stat status {};
  return is_held() && ::fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode) &&
         status.st_nlink == 1 && ::ftruncate(descriptor_, 0) == 0 &&
         ::pwrite(descriptor_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
         (text.empty() || ::fdatasync(descriptor_) == 0);
}

void FileLock::remove_file() {
  if (is_held())
    ::unlink(path_.c_str());
}

} // namespace ravelin::platform
