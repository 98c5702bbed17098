#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace ravelin::platform {

/// The calls that reach the file system to change something, as the system spells them: -1 and
/// `errno`. The one place where a test can make the nth of them fail or forget what was not
/// flushed.
class FileCalls {
public:
  virtual ~FileCalls() = default;
  virtual int open(const char* path, int flags, mode_t mode);
  virtual int close(int descriptor);
  virtual ssize_t pwrite(int descriptor, const void* bytes, std::size_t size, off_t offset);
  virtual int fdatasync(int descriptor);
  virtual int fsync(int descriptor);
  virtual int ftruncate(int descriptor, off_t size);
  /// Reserves room without changing the visible size, where that costs next to nothing.
  virtual int reserve(int descriptor, off_t size);
  virtual int rename(const char* from, const char* to);
  virtual int unlink(const char* path);
  virtual int setxattr(const char* path, const char* name, const void* value, std::size_t size);
  virtual int removexattr(const char* path, const char* name);
};

/// The calls in use.
FileCalls& file_calls();
/// Puts other calls in place, or the system's own again with null. While no file is in use.
void set_file_calls(FileCalls* calls);

} // namespace ravelin::platform
