#pragma once

#include "platform/files/file_lock.h"
#include "ravelin/url.h"

#include <string>

namespace ravelin {

/// Locks the files of a destination against other processes and other downloads of this one.
///
/// The lock is on a small hidden file beside the resume record. While a download is unfinished, the
/// file stays and holds its name, since two destinations may share a resume record and not every
/// file system can mark a file as incomplete.
///
/// Threads: one at a time. Ownership: the run's.
class DestinationLock {
public:
  /// The state of a lock file.
  struct Info {
    bool is_held = false;
    bool is_unfinished = false;
    bool is_complete = false; // see `is_complete()`
    std::string other_owner;  // see `other_owner()`
  };
  /// Reads the lock file without creating or locking it.
  static Info inspect(const URL& destination);

  /// Deletes the lock file of a destination that was deleted, unless the lock is held.
  static void clear(const URL& destination);

  explicit DestinationLock(const URL& destination);
  ~DestinationLock();

  bool is_held_by_another() const { return lock_.is_held_by_another(); }
  /// The name of another unfinished file with the same resume record; empty if there is none.
  const std::string& other_owner() const { return info_.other_owner; }
  /// The download was started and not finished.
  bool is_unfinished() const { return info_.is_unfinished; }
  /// All bytes were written, but the process was killed before it removed the record and marks.
  bool is_complete() const { return info_.is_complete; }
  /// Call it before the files are changed.
  void start();
  /// All bytes are written. Call it before the record is deleted.
  void note_complete();
  /// The download is finished, and the lock file can be deleted.
  void finish();

private:
  static Info parse(const URL& destination, const std::string& content);

  URL destination_;
  platform::FileLock lock_;
  Info info_;
};

} // namespace ravelin
