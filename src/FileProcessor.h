#pragma once

#include "platform/files/file_handle.h"
#include "platform/files/file_manager.h"
#include "platform/threads/guarded.h"
#include "platform/threads/semaphore.h"
#include "platform/threads/serial_queue.h"
#include "platform/threads/thread_annotations.h"
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

/// The destination file of one download and its resume record.
///
/// Threads: fields belong to the main thread unless their comment says otherwise; queued jobs run
/// in order on `file_write_queue`.
/// Errors: `std::system_error` from the file system, unchanged; otherwise text errors. A failed
/// write terminates the process unless `keeps_write_errors` is set.
/// Ownership: created and owned by one operation, which outlives it; queued jobs keep it alive.
class FileProcessor : public std::enable_shared_from_this<FileProcessor> {
public:
  using ResumeData = ravelin::ResumeData;

  explicit FileProcessor(RavelinOperation& owner_opr);

  /// Keeps existing files if the download can be resumed, otherwise creates new ones. Opens the
  /// destination and reserves space for it.
  void setup() BG_ONLY;
  /// Queues a write and flush of `bytes` at the offset `pos` and returns at once.
  void async_write_bytes(std::int64_t pos, platform::Data bytes) MAIN_ONLY;
  /// Saves the record atomically. It counts flushed bytes only.
  void update_resume_file();
  /// Queues `update_resume_file()` after the writes queued so far. Stores a failure in `exception`.
  void async_update_resume_file();
  /// Waits for the queued jobs.
  void bg_wait_for_writes() BG_ONLY;
  void delete_resume_file();
  static void delete_resume_file(const URL& main_file);
  static void delete_main_file(const URL& main_file);

  /// "/x/.movie.lgresume" for "/x/movie.mp4".
  static URL prepare_resume_file_url(const URL& from);
  std::shared_ptr<ResumeData> create_new_resume_data() const;
  void read_resume_data();
  /// Null if there is no readable record.
  static std::shared_ptr<ResumeData> read_resume_data(const URL& main_file);

  std::shared_ptr<ResumeData> resume_data MAIN_STATE;
  // Set before the first job is queued, and not changed afterwards:
  std::optional<URL> resume_file_url;
  std::optional<std::int64_t> split_count;
  std::optional<std::int64_t> content_len; // bytes
  std::optional<std::string> server_side_date;
  std::optional<URL> main_file_url;
  bool must_restart = false; // do not resume existing files
  platform::Links links = platform::Links::followed;
  bool bounds_counts = false;      // reject records that count more bytes than their parts have
  bool keeps_write_errors = false; // in `exception` instead of terminating the process
  bool removes_traces = false;     // if the destination cannot be created
  // Opened by `setup()`, used on the write queue, closed by the owner when the group is empty.
  std::optional<platform::FileHandle> main_file_handle;
  platform::FileManager& fm;
  platform::DispatchGroup file_write_grp; // see `bg_wait_for_writes()`
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
  void remove_traces() noexcept;
  bool can_continue();
  void open_main_file(bool continued);
  void write_queued_bytes(std::int64_t pos, platform::Data bytes);
  ResumeData flushed_record() MAIN_ONLY;
  const URL& required_resume_file_url() const;

  std::deque<QueuedWrite> queued_writes MAIN_STATE; // possibly unflushed, oldest first
  std::int64_t queued_count MAIN_STATE = 0;
  // Written by write jobs. The main thread reads it while a later job of the queue, or a thread
  // that has waited for the group, waits for the main thread.
  std::int64_t flushed_count = 0;
};

} // namespace ravelin
