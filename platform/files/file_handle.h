#pragma once

#include "platform/data.h"
#include "platform/files/file_manager.h"
#include "ravelin/url.h"

#include <cstdint>

namespace ravelin::platform {

/// A file open for positioned writes.
///
/// Threads: one at a time. Errors: `std::system_error` whose text names the file.
/// Ownership: closes the file when destroyed, unless `close_file()` did.
class FileHandle {
public:
  /// Opens the existing file at `url`. With `Links::refused` it must also be the user's own.
  static FileHandle for_writing_to(const URL& url, Links links = Links::followed);
  FileHandle(FileHandle&& other) noexcept;
  FileHandle& operator=(FileHandle&&) = delete;
  ~FileHandle();

  /// Writes all of `bytes` at `offset` (bytes from the start, not negative).
  void write(std::int64_t offset, const Data& bytes);
  /// Flushes everything written to storage.
  void synchronize();
  /// Reserves space for `size` bytes without changing the visible size. Throws and reserves nothing
  /// if the file system is full. Where it cannot reserve, only the free space is checked.
  void reserve(std::int64_t size);
  /// Truncates the file to `size` bytes if it is longer.
  void cut(std::int64_t size);
  void close_file() noexcept;

private:
  FileHandle(int descriptor, std::filesystem::path path);
  bool try_to_reserve(std::int64_t size) const;
  void require_space(std::int64_t size) const;
  std::int64_t visible_size() const;
  [[noreturn]] void fail(const char* what) const;

  int descriptor_;
  std::filesystem::path path_;
};

} // namespace ravelin::platform
