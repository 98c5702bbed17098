#pragma once

#include "ravelin/url.h"

#include <filesystem>
#include <string>

namespace ravelin::platform {

/// An exclusive advisory lock on a small lock file, which also holds a short text. The system
/// releases the lock when its holder exits, killed or not. If the file cannot be created there is
/// no lock, and that is not an error.
///
/// Threads: one at a time.
class FileLock {
public:
  /// The state of a lock file, found without creating or taking it.
  struct Look {
    std::string content;
    bool is_held = false;
  };
  static Look look(const std::filesystem::path& path);

  explicit FileLock(std::filesystem::path path);
  ~FileLock();
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  bool is_held() const { return descriptor_ >= 0 && !held_by_another_; }
  bool is_held_by_another() const { return held_by_another_; }
  /// At most 300 bytes; empty if there is none.
  std::string content() const;
  /// Flushes the text unless it is empty. False if it could not be stored.
  bool set_content(const std::string& text);
  /// Deletes the file. The lock itself is held until this object is destroyed.
  void remove_file();

private:
  void take();
  bool path_names_our_file() const;

  std::filesystem::path path_;
  int descriptor_ = -1;
  bool held_by_another_ = false;
};

} // namespace ravelin::platform
