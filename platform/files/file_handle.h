#pragma once

#include "platform/data.h"
#include "ravelin/url.h"

#include <cstdint>

namespace ravelin::platform {

/// A file opened for writing at any position.
///
/// Threads: one at a time. Errors: `std::system_error` whose text names the file.
/// Ownership: closes the file when destroyed, if nobody did before.
class FileHandle {
public:
  /// Opens the existing file at `url`.
  static FileHandle for_writing_to(const URL& url);
  FileHandle(FileHandle&& other) noexcept;
  FileHandle& operator=(FileHandle&&) = delete;
  ~FileHandle();

  /// Writes all of `bytes` at `offset` (bytes from the start, 0 or more).
  void write(std::int64_t offset, const Data& bytes);
  /// Returns when everything written is on storage.
  void synchronize();
  /// Reserves room for `size` bytes without changing the visible size. A file system that is full
  /// throws, and keeps nothing of the attempt; one that cannot reserve is asked what is free.
  void reserve(std::int64_t size);
  /// Cuts the file to `size` bytes if it is longer.
  void cut(std::int64_t size);
  void close_file() noexcept;

private:
  FileHandle(int descriptor, std::filesystem::path path);
  bool try_to_reserve(std::int64_t size) const;
  void require_room(std::int64_t size) const;
  std::int64_t visible_size() const;
  [[noreturn]] void fail(const char* what) const;

  int descriptor_;
  std::filesystem::path path_;
};

} // namespace ravelin::platform
