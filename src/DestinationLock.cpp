#include "src/DestinationLock.h"

#include "platform/files/extended_attributes.h"
#include "platform/files/file_manager.h"
#include "src/FileProcessor.h"

#include <filesystem>
#include <utility>

namespace ravelin {
namespace {

// Named after the resume record, since two downloads must not share one.
std::filesystem::path lock_path(const URL& destination) {
  auto path = FileProcessor::prepare_resume_file_url(destination).path();
  return path += ".lock";
}

constexpr std::string_view complete_note = "\ncomplete";

bool exists(const URL& url) {
  return platform::FileManager::default_manager().file_exists(url);
}

/// The unfinished file that a record belongs to if it is not the destination's: one whose download
/// took no lock.
std::string find_unnoted_owner(const URL& destination) {
  const auto path = destination.path();
  if (exists(destination) || !exists(FileProcessor::prepare_resume_file_url(destination)))
    return {};
  std::error_code ignored;
  const auto directory = path.has_parent_path() ? path.parent_path() : ".";
  std::filesystem::directory_iterator entry(directory, ignored);
  for (; entry != std::filesystem::directory_iterator(); entry.increment(ignored))
    if (entry->path().stem() == path.stem() &&
        platform::extended_attribute(URL::file(entry->path()), "lg_ignore"))
      return entry->path().filename().native();
  return {};
}

} // namespace

DestinationLock::Info DestinationLock::parse(const URL& destination, const std::string& content) {
  Info info;
  auto owner = content;
  const bool is_complete = owner.ends_with(complete_note);
  if (is_complete)
    owner.resize(owner.size() - complete_note.size());
  if (owner.empty() || owner.find('/') != std::string::npos ||
      owner.find('\0') != std::string::npos)
    return info;
  const auto path = destination.path();
  if (owner == path.filename().native()) {
    info.is_complete = is_complete;
    info.is_unfinished = !is_complete;
  } else if (exists(FileProcessor::prepare_resume_file_url(destination)) &&
             exists(URL::file(path.parent_path() / owner)))
    info.other_owner = owner;
  return info;
}

DestinationLock::Info DestinationLock::inspect(const URL& destination) {
  const auto [content, is_held] = platform::FileLock::look(lock_path(destination));
  auto info = parse(destination, content);
  info.is_held = is_held;
  return info;
}

void DestinationLock::clear(const URL& destination) {
  if (exists(destination) || !exists(URL::file(lock_path(destination))))
    return;
  DestinationLock lock(destination); // its destructor deletes the file
}

DestinationLock::DestinationLock(const URL& destination)
    : destination_(destination), lock_(lock_path(destination)) {
  if (lock_.is_held())
    info_ = parse(destination_, lock_.content());
  if (info_.other_owner.empty())
    info_.other_owner = find_unnoted_owner(destination_);
}

void DestinationLock::start() {
  if (!info_.is_unfinished)
    info_.is_unfinished = lock_.set_content(destination_.path().filename().native());
}

void DestinationLock::note_complete() {
  info_.is_complete = true;
  lock_.set_content(destination_.path().filename().native() + std::string(complete_note));
}

void DestinationLock::finish() {
  info_.is_unfinished = false;
  info_.is_complete = false;
}

DestinationLock::~DestinationLock() {
  const bool needed = !info_.other_owner.empty() || (info_.is_unfinished && exists(destination_));
  if (!needed)
    lock_.remove_file();
}

} // namespace ravelin
