#include "platform/files/file_calls.h"

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <fcntl.h>
#include <sys/xattr.h>
#include <unistd.h>

#if defined(__linux__)
#include <linux/magic.h>
#include <sys/vfs.h>
#endif

namespace ravelin::platform {
namespace {

std::atomic<FileCalls*> replacement = nullptr; // read by every thread that uses files

} // namespace

int FileCalls::open(const char* path, int flags, mode_t mode) {
  return ::open(path, flags | O_CLOEXEC, mode);
}
int FileCalls::close(int descriptor) {
  return ::close(descriptor);
}
ssize_t FileCalls::pwrite(int descriptor, const void* bytes, std::size_t size, off_t offset) {
  return ::pwrite(descriptor, bytes, size, offset);
}
int FileCalls::fdatasync(int descriptor) {
  return ::fdatasync(descriptor);
}
int FileCalls::fsync(int descriptor) {
  return ::fsync(descriptor);
}
int FileCalls::ftruncate(int descriptor, off_t size) {
  return ::ftruncate(descriptor, size);
}
int FileCalls::rename(const char* from, const char* to) {
  return ::rename(from, to);
}
int FileCalls::unlink(const char* path) {
  return ::unlink(path);
}

#if defined(__linux__)
int FileCalls::reserve(int descriptor, off_t size) {
  // On tmpfs, reserving allocates and zeroes every page, which delays the first byte. That is only
  // worth it when space is short and several files may compete for it.
  constexpr std::uint64_t min_free_ratio = 8; // free space to file size
  struct statfs system {};
  if (::fstatfs(descriptor, &system) == 0 && system.f_type == TMPFS_MAGIC &&
      static_cast<std::uint64_t>(size) / static_cast<std::uint64_t>(system.f_bsize) <
          system.f_bavail / min_free_ratio)
    return errno = EOPNOTSUPP, -1;
  return ::fallocate(descriptor, FALLOC_FL_KEEP_SIZE, 0, size);
}
int FileCalls::setxattr(const char* path, const char* name, const void* value, std::size_t size) {
  return ::setxattr(path, name, value, size, 0);
}
int FileCalls::removexattr(const char* path, const char* name) {
  return ::removexattr(path, name);
}
#else
int FileCalls::reserve(int, off_t) {
  return errno = EOPNOTSUPP, -1;
}
int FileCalls::setxattr(const char*, const char*, const void*, std::size_t) {
  return errno = EOPNOTSUPP, -1;
}
int FileCalls::removexattr(const char*, const char*) {
  return errno = EOPNOTSUPP, -1;
}
#endif

FileCalls& file_calls() {
  static auto& system_calls = *new FileCalls;
  auto* const other = replacement.load(std::memory_order_acquire);
  return other ? *other : system_calls;
}

void set_file_calls(FileCalls* calls) {
  replacement.store(calls, std::memory_order_release);
}

} // namespace ravelin::platform
