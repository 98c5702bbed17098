#pragma once

#include <filesystem>
#include <string>

namespace ravelin::app {

/// Keeps other processes, and other downloads of this one, from the files of one destination.
///
/// A small hidden file beside it bears an advisory lock, which the system drops with its holder: a
/// killed process blocks nobody. While a download is unfinished the file stays and names it: two
/// destinations may share a resume record, and not every file system can mark a file as incomplete.
/// Where no such file can be made the lock is void.
class ProcessLock {
public:
  explicit ProcessLock(const std::filesystem::path& destination);
  ~ProcessLock();
  ProcessLock(const ProcessLock&) = delete;
  ProcessLock& operator=(const ProcessLock&) = delete;

  bool held_by_another() const { return held_by_another_; }
  /// The name of another unfinished download with the same resume record; empty if there is none.
  const std::string& other_owner() const { return other_owner_; }
  /// This destination was begun and is not known to be finished.
  bool unfinished() const { return unfinished_; }
  /// To be called before the files are touched.
  void begin();
  /// The destination is complete.
  void finish();

private:
  bool names_our_file() const;
  void take();
  void read_owner();
  bool write_owner(const std::string& name);

  std::filesystem::path destination_;
  std::filesystem::path path_;
  int descriptor_ = -1;
  bool held_by_another_ = false;
  bool unfinished_ = false;
  std::string other_owner_;
};

} // namespace ravelin::app
