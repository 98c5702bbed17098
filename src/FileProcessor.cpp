#include "src/FileProcessor.h"

#include "bramblekit/errors.h"
#include "bramblekit/file_marks.h"
#include "bramblekit/main_thread.h"
#include "platform/fatal.h"
#include "src/RavelinOperation_impl.h"
#include "src/Splitting.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <system_error>

namespace ravelin {

using bramblekit::main_sync;
using platform::Data;
using platform::FileManager;

namespace {

constexpr std::size_t max_record_size = 1024 * 1024; // real ones have less than 1 KiB

/// Runs `step`; an exception becomes a text error that starts with `message` and has its code.
template <class Step> void with_message(const char* message, Step&& step) {
  try {
    step();
  } catch (...) {
    std::throw_with_nested(TextError(message + Error::current().text()));
  }
}

void remove_if_exists(FileManager& fm, const URL& url) {
  if (!fm.file_exists(url))
    return;
  try {
    fm.remove_item(url);
  } catch (const std::system_error& error) {
    if (error.code().value() != ENOENT) // somebody else has removed it
      throw;
  }
}

std::shared_ptr<ResumeData> read_record(const URL& resume_file,
                                        platform::Links links = platform::Links::followed) {
  return ResumeData::instance(platform::read_text(resume_file, max_record_size, links));
}

} // namespace

FileProcessor::FileProcessor(RavelinOperation& owner)
    : fm(FileManager::default_manager()), owner_opr(owner) {}

void FileProcessor::setup() {
  if (!main_file_url)
    platform::fatal("a file processor was set up without a destination");
  resume_file_url = prepare_resume_file_url(*main_file_url);
  exception.set(std::nullopt);
  const bool resumed = can_continue();
  if (!resumed) {
    reset_files();
    read_resume_data();
  }
  try {
    open_main_file(resumed);
  } catch (...) {
    if (removes_traces && !fm.file_exists(*main_file_url)) // it could not be created either
      remove_traces();
    throw;
  }
}

bool FileProcessor::can_continue() {
  if (must_restart || !fm.file_exists(*main_file_url) || !fm.file_exists(*resume_file_url) ||
      !split_count || !content_len)
    return false;
  read_resume_data();
  return main_sync([&]() MAIN_ONLY {
    return resume_data->is_splitted == split_count.has_value() &&
           resume_data->content_length == content_len;
  });
}

void FileProcessor::open_main_file(bool resumed) {
  auto handle = platform::FileHandle::for_writing_to(*main_file_url, links);
  if (content_len) {
    if (resumed) // a process killed in `reset_files` may have left an old file that is longer
      handle.cut(*content_len);
    handle.reserve(*content_len);
  }
  main_file_handle.emplace(std::move(handle));
}

void FileProcessor::reset_files() {
  const auto& resume_file = required_resume_file_url();
  // The record is replaced first, so that a partial file is never without one.
  try {
    with_message("Couldn't create resume file: \n", [&] {
      platform::write_text_atomically(resume_file, create_new_resume_data()->to_json());
    });
  } catch (...) {
    remove_if_exists(fm, resume_file);
    throw;
  }
  remove_if_exists(fm, *main_file_url);
  fm.create_file(*main_file_url, links);
  bramblekit::ext_attr(*main_file_url)["lg_ignore"] = bramblekit::to_data("true");
  bramblekit::set_is_hidden(*main_file_url, true);
  RavelinOperation::Impl::of(owner_opr).report_off_main(
      {Status::files_are_created{*main_file_url, resume_file}});
}

void FileProcessor::remove_traces() noexcept {
  try {
    bramblekit::set_is_hidden(*main_file_url, false);
    delete_resume_file();
  } catch (...) {
    // The error of the file itself is the one to report.
  }
}

void FileProcessor::async_write_bytes(std::int64_t pos, Data bytes) {
  file_write_grp.enter();
  queued_writes.push_back({pos, queued_count++});
  file_write_queue.async([self = shared_from_this(), pos, bytes = std::move(bytes)]() mutable {
    self->write_queued_bytes(pos, std::move(bytes));
    self->file_write_grp.leave();
  });
}

void FileProcessor::bg_wait_for_writes() {
  file_write_grp.wait();
}

void FileProcessor::write_queued_bytes(std::int64_t pos, Data bytes) {
  if (!main_file_handle)
    platform::fatal("bytes were queued for a destination that is not open");
  if (keeps_write_errors && exception.get())
    return; // an earlier write is missing, so later ones must not be counted
  try {
    main_file_handle->write(pos, bytes);
    bytes = {}; // more can be received into its block during the flush
    main_file_handle->synchronize();
  } catch (...) {
    if (!keeps_write_errors)
      throw;
    exception.set(Error::current());
    return;
  }
  ++flushed_count;
}

ResumeData FileProcessor::flushed_record() {
  if (!resume_data)
    platform::fatal("there is no resume record to save");
  while (!queued_writes.empty() && queued_writes.front().number < flushed_count)
    queued_writes.pop_front();
  auto record = resume_data->clone();
  // The chunks of a part are written in order, so only bytes before its first unflushed one count.
  for (const auto& write : queued_writes)
    for (const auto& part : record.parts)
      if (write.pos >= part->begin_pos)
        part->curr_bytes =
            std::min(part->curr_bytes, platform::checked_subtract(write.pos, part->begin_pos));
  return record;
}

void FileProcessor::update_resume_file() {
  with_message("Couldn't update resume file: \n", [&] {
    const auto text = main_sync([&]() MAIN_ONLY { return flushed_record().to_json(); });
    platform::write_text_atomically(required_resume_file_url(), text);
  });
}

void FileProcessor::async_update_resume_file() {
  file_write_grp.enter();
  file_write_queue.async([self = shared_from_this()] {
    try {
      self->update_resume_file();
    } catch (...) {
      self->exception.set(Error::current());
    }
    self->file_write_grp.leave();
  });
}

void FileProcessor::delete_resume_file() {
  remove_if_exists(fm, required_resume_file_url());
  platform::remove_temporary_of(required_resume_file_url());
}

void FileProcessor::delete_resume_file(const URL& main_file) {
  const auto resume_file = prepare_resume_file_url(main_file);
  remove_if_exists(FileManager::default_manager(), resume_file);
  platform::remove_temporary_of(resume_file);
}

void FileProcessor::delete_main_file(const URL& main_file) {
  remove_if_exists(FileManager::default_manager(), main_file);
}

URL FileProcessor::prepare_resume_file_url(const URL& from) {
  const auto path = from.path();
  return URL::file(path.parent_path() / ("." + path.stem().native() + ".lgresume"));
}

std::shared_ptr<ResumeData> FileProcessor::create_new_resume_data() const {
  if (!server_side_date)
    platform::fatal("a resume record needs the server's date");
  auto record = std::make_shared<ResumeData>();
  record->server_side_date = *server_side_date;
  record->content_length = content_len;
  record->is_splitted = split_count.has_value();
  if (content_len && split_count) {
    record->parts = split_into_parts(*content_len, *split_count);
    return record;
  }
  auto whole = std::make_shared<ResumeData::Part>();
  whole->total_bytes_expected = content_len.value_or(-1);
  record->parts.push_back(std::move(whole));
  return record;
}

void FileProcessor::read_resume_data() {
  with_message("Couldn't create resume data from file content: \n", [&] {
    auto record = read_record(required_resume_file_url(), links);
    if (!record->is_valid() || (bounds_counts && !record->has_counts_within_parts()))
      throw TextError("its parts do not match its length");
    main_sync([&]() MAIN_ONLY { resume_data = std::move(record); });
  });
}

std::shared_ptr<ResumeData> FileProcessor::read_resume_data(const URL& main_file) {
  const auto resume_file = prepare_resume_file_url(main_file);
  if (!FileManager::default_manager().file_exists(resume_file))
    return nullptr;
  try {
    auto record = read_record(resume_file);
    return record->has_countable_bytes() ? record : nullptr;
  } catch (...) {
    return nullptr;
  }
}

const URL& FileProcessor::required_resume_file_url() const {
  if (!resume_file_url)
    platform::fatal("the path of the resume file is not known yet");
  return *resume_file_url;
}

} // namespace ravelin
