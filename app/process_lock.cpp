#include "app/process_lock.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace app {

// Named as the resume record is, since that is what two downloads must not share.
ProcessLock::ProcessLock(const std::filesystem::path& destination)
    : path_(destination.parent_path() / ("." + destination.stem().native() + ".lgresume.lock")) {
  for (;;) {
    descriptor_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_CLOEXEC, 0666);
    if (descriptor_ < 0)
      return;
    held_by_another_ = ::flock(descriptor_, LOCK_EX | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    if (held_by_another_ || names_our_file())
      return;
    ::close(descriptor_); // its holder removed it while we opened it
  }
}

bool ProcessLock::names_our_file() const {
  struct stat by_name {};
  struct stat ours {};
  return ::stat(path_.c_str(), &by_name) == 0 && ::fstat(descriptor_, &ours) == 0 &&
         by_name.st_ino == ours.st_ino && by_name.st_dev == ours.st_dev;
}

ProcessLock::~ProcessLock() {
  if (descriptor_ < 0)
    return;
  if (!held_by_another_)
    ::unlink(path_.c_str());
  ::close(descriptor_);
}

} // namespace app
