#include "platform/files/file_handle.h"

#include "platform/fatal.h"
#include "platform/files/file_calls.h"

#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace ravelin::platform {

FileHandle::FileHandle(int descriptor, std::filesystem::path path)
    : descriptor_(descriptor), path_(std::move(path)) {}

FileHandle FileHandle::for_writing_to(const URL& url, Links links) {
  auto path = url.path();
  const int flags = O_WRONLY | O_NONBLOCK | O_NOCTTY | (links == Links::refused ? O_NOFOLLOW : 0);
  const int descriptor = file_calls().open(path.c_str(), flags, 0);
  FileHandle handle(descriptor, std::move(path));
  if (descriptor < 0)
    handle.fail("open");
  struct stat status {};
  if (links == Links::refused &&
      (::fstat(descriptor, &status) != 0 || status.st_uid != ::geteuid())) {
    errno = EPERM; // put there since we looked
    handle.fail("open");
  }
  return handle;
}

FileHandle::FileHandle(FileHandle&& other) noexcept
    : descriptor_(std::exchange(other.descriptor_, -1)), path_(std::move(other.path_)) {}

FileHandle::~FileHandle() {
  close_file();
}

void FileHandle::write(std::int64_t offset, const Data& bytes) {
  if (offset < 0)
    fatal("a write before the start of a file");
  auto rest = bytes.bytes();
  while (!rest.empty()) {
    const auto written = file_calls().pwrite(descriptor_, rest.data(), rest.size(), offset);
    if (written < 0 && errno == EINTR)
      continue;
    if (written == 0)
      errno = EIO; // no progress and no error code
    if (written <= 0)
      fail("write to");
    rest = rest.subspan(static_cast<std::size_t>(written));
    offset += written;
  }
}

void FileHandle::synchronize() {
  while (file_calls().fdatasync(descriptor_) != 0) {
    if (errno == EINVAL)
      return; // a pipe or device cannot be flushed
    if (errno != EINTR)
      fail("flush");
  }
}

std::int64_t FileHandle::visible_size() const {
  struct stat status {};
  return ::fstat(descriptor_, &status) == 0 ? status.st_size : 0;
}

void FileHandle::reserve(std::int64_t size) {
  if (size <= 0 || try_to_reserve(size))
    return;
  // Attempts at the same time fail together, each holding some of the space: retry one at a time.
  static std::mutex mutex;
  const std::lock_guard lock(mutex);
  if (!try_to_reserve(size))
    fail("reserve space for");
}

bool FileHandle::try_to_reserve(std::int64_t size) const {
  while (file_calls().reserve(descriptor_, size) != 0) {
    const int reason = errno;
    if (reason == EINTR)
      continue;
    if (reason != ENOSPC && reason != EDQUOT && reason != EFBIG) {
      require_space(size);
      return true;
    }
    file_calls().ftruncate(descriptor_, visible_size()); // releases a partial reservation
    errno = reason;
    return false;
  }
  return true;
}

void FileHandle::require_space(std::int64_t size) const {
  struct stat status {};
  struct statvfs system {};
  if (::fstat(descriptor_, &status) != 0 || ::fstatvfs(descriptor_, &system) != 0)
    return;
  const auto missing = size - static_cast<std::int64_t>(status.st_blocks) * 512;
  const auto block = static_cast<std::int64_t>(system.f_frsize);
  if (block > 0 && system.f_blocks > 0 &&
      missing / block > static_cast<std::int64_t>(system.f_bavail)) {
    errno = ENOSPC;
    fail("reserve space for");
  }
}

void FileHandle::cut(std::int64_t size) {
  if (visible_size() > size && file_calls().ftruncate(descriptor_, size) != 0)
    fail("shorten");
}

void FileHandle::close_file() noexcept {
  if (descriptor_ >= 0)
    file_calls().close(std::exchange(descriptor_, -1));
}

void FileHandle::fail(const char* what) const {
  const int reason = errno;
  throw std::system_error(reason, std::system_category(),
                          std::string("could not ") + what + " '" + path_.native() + "'");
}

} // namespace ravelin::platform
