#pragma once

#include "platform/files/file_handle.h"
#include "platform/files/file_manager.h"
#include "platform/threads/guarded.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/serial_queue.h"
#include "platform/threads/thread_marks.h"
#include "ravelin/error.h"
#include "ravelin/url.h"
#include "src/ResumeData.h"

#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

namespace ravelin {

class RavelinOperation;

/// The destination file of one download and the small record beside it.
///
/// Threads: fields belong to the main thread unless their comment says otherwise; queued jobs run
/// on `file_write_queue`, in whose order they come.
/// Errors: `std::system_error` from the file system, unchanged; text errors of our own. A write
/// that fails ends the process.
/// Ownership: made and owned by one operation, which outlives it; queued jobs keep it alive.
class FileProcessor : public std::enable_shared_from_this<FileProcessor> {
public:
  using ResumeData = ravelin::ResumeData;

  explicit FileProcessor(RavelinOperation& owner_opr);

  /// Prepares both files: continues with what is there if it fits, else begins anew. Opens the
  /// destination and reserves room for it.
  void setup() BG_ONLY;
  /// Queues `bytes` for the offset `pos` (bytes from the start of the file), followed by a flush,
  /// and returns at once. It is `bg_wait_for_writes()` or `start_writes()` that gets the queue
  /// going; one of them must follow, since others may wait for these bytes by now.
  void async_write_bytes(std::int64_t pos, platform::Data bytes) MAIN_ONLY;
  /// Has what is queued done in the background, and returns at once.
  void start_writes();
  /// Saves the record, whole or not at all. It counts no byte that is not flushed.
  void update_resume_file();
  /// Queues a save behind the writes queued so far, likewise; a failure is kept in `exception`.
  void async_update_resume_file();
  /// Returns when what has been queued is done, by this thread or another.
  void bg_wait_for_writes() BG_ONLY;
  void delete_resume_file();
  static void delete_resume_file(const URL& main_file);
  static void delete_main_file(const URL& main_file);

  /// "/x/.movie.lgresume" for "/x/movie.mp4".
  static URL prepare_resume_file_url(const URL& from);
  std::shared_ptr<ResumeData> create_new_resume_data() const;
  void read_resume_data();
  /// None where there is no record or none that can be read.
  static std::shared_ptr<ResumeData> read_resume_data(const URL& main_file);

  std::shared_ptr<ResumeData> resume_data MAIN_STATE;
  // The next five are set before the first job is queued and not changed after.
  std::optional<URL> resume_file_url;
  std::optional<std::int64_t> split_count;
  std::optional<std::int64_t> content_len; // bytes
  std::optional<std::string> server_side_date;
  std::optional<URL> main_file_url;
  // Opened by `setup()`, then used on the write queue; closed by the owner once the group is empty.
  std::optional<platform::FileHandle> main_file_handle;
  platform::FileManager& fm;
  platform::DispatchGroup file_write_grp; // waited for by `bg_wait_for_writes()` only
  platform::SerialQueue file_write_queue{"file_write_queue"};
  std::optional<platform::SerialQueue> suspended_file_queue; // never set
  RavelinOperation& owner_opr;
  platform::Guarded<std::optional<Error>> exception;

private:
  struct QueuedWrite {
    std::int64_t pos;
    std::int64_t number;
  };

  void reset_files();
  bool can_continue();
  void open_main_file(bool continued);
  void write_queued_bytes(std::int64_t pos, const platform::Data& bytes);
  ResumeData flushed_record() MAIN_ONLY;
  const URL& required_resume_file_url() const;

  std::deque<QueuedWrite> queued_writes MAIN_STATE; // not known to be flushed, oldest first
  std::int64_t queued_count MAIN_STATE = 0;
  // Counted by write jobs. Read on the main thread on behalf of a later job of the same queue, or
  // after a wait for the group.
  std::int64_t flushed_count = 0;
};

} // namespace ravelin
