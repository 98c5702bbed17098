#include "app/process_lock.h"

#include "app/leftovers.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace ravelin::app {

namespace fs = std::filesystem;

// Named as the resume record is, since that is what two downloads must not share.
ProcessLock::ProcessLock(const fs::path& destination)
    : destination_(destination), path_(record_of(destination)) {
  path_ += ".lock";
  take();
  if (descriptor_ >= 0 && !held_by_another_)
    read_owner();
}

void ProcessLock::take() {
  constexpr int flags = O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC;
  for (int attempt = 0; attempt < 100; ++attempt) {
    descriptor_ = ::open(path_.c_str(), O_RDWR | flags, 0666);
    if (descriptor_ < 0 && errno == EACCES) // another user's: its lock counts all the same
      descriptor_ = ::open(path_.c_str(), O_RDONLY | (flags & ~O_CREAT));
    if (descriptor_ < 0)
      return;
    held_by_another_ = ::flock(descriptor_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (held_by_another_ || names_our_file())
      return;
    ::close(std::exchange(descriptor_, -1)); // its holder removed it while we opened it
  }
}

bool ProcessLock::names_our_file() const {
  struct stat by_name {};
  struct stat ours {};
  return ::stat(path_.c_str(), &by_name) == 0 && ::fstat(descriptor_, &ours) == 0 &&
         by_name.st_ino == ours.st_ino && by_name.st_dev == ours.st_dev;
}

void ProcessLock::read_owner() {
  char text[256];
  const auto size = ::pread(descriptor_, text, sizeof text, 0);
  const std::string owner(text, size > 0 ? static_cast<std::size_t>(size) : 0);
  if (owner.empty() || owner.find('/') != std::string::npos ||
      owner.find('\0') != std::string::npos)
    return;
  std::error_code ignored;
  if (owner == destination_.filename().native())
    unfinished_ = true;
  else if (fs::exists(record_of(destination_), ignored) &&
           fs::exists(destination_.parent_path() / owner, ignored))
    other_owner_ = owner;
}

/// Never into a file that has another name, too: it may be somebody else's.
bool ProcessLock::write_owner(const std::string& name) {
  struct stat status {};
  return ::fstat(descriptor_, &status) == 0 && S_ISREG(status.st_mode) && status.st_nlink == 1 &&
         ::ftruncate(descriptor_, 0) == 0 &&
         ::pwrite(descriptor_, name.data(), name.size(), 0) == static_cast<ssize_t>(name.size());
}

void ProcessLock::begin() {
  if (descriptor_ >= 0 && !unfinished_)
    unfinished_ = write_owner(destination_.filename().native()) && ::fdatasync(descriptor_) == 0;
}

void ProcessLock::finish() {
  if (descriptor_ >= 0 && std::exchange(unfinished_, false))
    write_owner("");
}

ProcessLock::~ProcessLock() {
  if (descriptor_ < 0)
    return;
  std::error_code ignored;
  const bool needed = held_by_another_ || !other_owner_.empty() ||
                      (unfinished_ && fs::exists(destination_, ignored));
  if (!needed)
    ::unlink(path_.c_str());
  ::close(descriptor_);
}

} // namespace ravelin::app
