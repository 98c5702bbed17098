#pragma once

#include <filesystem>

namespace app {

/// Keeps other processes, and other downloads of this one, from the files of one destination.
///
/// A small hidden file beside it bears an advisory lock, which the system drops with its holder: a
/// killed process blocks nobody. Where no such file can be made the lock is void.
class ProcessLock {
public:
  explicit ProcessLock(const std::filesystem::path& destination);
  ~ProcessLock();
  ProcessLock(const ProcessLock&) = delete;
  ProcessLock& operator=(const ProcessLock&) = delete;

  bool held_by_another() const { return held_by_another_; }

private:
  bool names_our_file() const;

  std::filesystem::path path_;
  int descriptor_ = -1;
  bool held_by_another_ = false;
};

} // namespace app
