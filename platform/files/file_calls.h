#pragma once

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace ravelin::platform {

/// The system calls that change files, with their usual interface: -1 and `errno` on failure.
/// Tests override them to make the nth call fail or to drop what was not flushed.
class FileCalls {
public:
  virtual ~FileCalls() = default;
  virtual int open(const char* path, int flags, mode_t mode);
  virtual int close(int descriptor);
  virtual ssize_t pwrite(int descriptor, const void* bytes, std::size_t size, off_t offset);
  virtual int fdatasync(int descriptor);
  virtual int fsync(int descriptor);
  virtual int ftruncate(int descriptor, off_t size);
  /// Allocates space without changing the visible size, unless that would be slow.
  virtual int reserve(int descriptor, off_t size);
  virtual int rename(const char* from, const char* to);
  virtual int unlink(const char* path);
  virtual int setxattr(const char* path, const char* name, const void* value, std::size_t size);
  virtual int removexattr(const char* path, const char* name);
};

FileCalls& file_calls();
/// Replaces the calls; null restores the system's. Call it while no file is open.
void set_file_calls(FileCalls* calls);

} // namespace ravelin::platform
