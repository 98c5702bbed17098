#include "platform/files/hidden_list.h"

#include "platform/files/extended_attributes.h"
#include "platform/files/file_calls.h"
#include "platform/files/file_manager.h"
#include "ravelin/main_queue.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace ravelin::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t max_list_size = 4 * 1024 * 1024; // bytes; a larger one is left alone
constexpr std::string_view our_list_attribute = "ravelin.made_this_list";

enum class Wait { no, yes };

/// Keeps other processes from editing the list at the same time. Gives up after 100 ms at most,
/// since anyone who can read the directory can hold its lock forever.
class DirectoryLock {
public:
  DirectoryLock(const fs::path& directory, Wait wait)
      : descriptor_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    const int attempts = descriptor_ < 0 ? 0 : wait == Wait::yes ? 50 : 1;
    for (int attempt = 1; attempt <= attempts; ++attempt) {
      held_ = ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
      if (held_ || (errno != EWOULDBLOCK && errno != EINTR))
        return;
      is_busy_ = attempt == attempts;
      if (!is_busy_)
        ::usleep(2000);
    }
  }
  bool is_busy() const { return is_busy_; } // held by another process
  bool held() const { return held_; }
  ~DirectoryLock() {
    if (descriptor_ >= 0)
      ::close(descriptor_);
  }
  DirectoryLock(const DirectoryLock&) = delete;
  DirectoryLock& operator=(const DirectoryLock&) = delete;

private:
  int descriptor_;
  bool held_ = false;
  bool is_busy_ = false;
};

struct Edit {
  std::string text;
  bool changed = false;
};

/// Adds the line `name` to `text`, or removes it; every other byte stays.
Edit edit_line(std::string text, const std::string& name, bool listed) {
  std::size_t begin = 0;
  while (begin < text.size()) {
    const auto end = std::min(text.find('\n', begin), text.size());
    if (std::string_view(text).substr(begin, end - begin) == name) {
      if (listed)
        return {std::move(text), false};
      text.erase(begin, end - begin + 1);
      return {std::move(text), true};
    }
    begin = end + 1;
  }
  if (!listed)
    return {std::move(text), false};
  if (!text.empty() && text.back() != '\n')
    text += '\n';
  return {text + name + '\n', true};
}

struct HiddenList {
  bool exists = false;
  bool is_editable = true;
  std::string text;
};

/// Does not follow a link: the list is kept elsewhere, or someone planted the link.
HiddenList read_list(const URL& list) {
  try {
    return {true, true, read_text(list, max_list_size, Links::refused)};
  } catch (const std::system_error& error) {
    return {false, error.code().value() == ENOENT, ""};
  }
}

/// Assumed where attributes are not supported: an empty list is of no use to anyone.
bool made_by_us(const URL& list) {
  return extended_attribute(list, our_list_attribute).has_value() || errno == ENOTSUP;
}

/// Needs the directory lock.
void edit_locked_list(const fs::path& directory, const std::string& name, bool listed) {
  const auto list = URL::file(directory / ".hidden");
  if (!listed)
    remove_temporary_of(list); // a killed process may have left one
  const auto before = read_list(list);
  if (!before.is_editable || (!before.exists && !listed))
    return;
  const bool ours = !before.exists || made_by_us(list);
  const auto edit = edit_line(before.text, name, listed);
  if (!edit.changed)
    return;
  if (edit.text.empty() && ours) {
    file_calls().unlink(list.path().c_str());
    return;
  }
  // Our own list is not worth a flush: without it, hidden files are visible for a while.
  write_text_atomically(list, edit.text, ours ? Flush::no : Flush::yes);
  if (ours)
    set_extended_attribute(list, our_list_attribute, Data::copy_of("true"));
}

/// Whether it is done, or cannot be.
bool edit_list(const fs::path& directory, const std::string& name, bool listed, Wait wait,
               Unlist when) {
  // Background threads of this process wait for each other without a limit: only other processes
  // can make the directory lock time out.
  static auto& mutex = *new std::mutex;
  std::unique_lock guard(mutex, std::defer_lock);
  if (wait == Wait::yes)
    guard.lock();
  else if (!guard.try_lock())
    return false;
  const DirectoryLock lock(directory, wait);
  // A file that is there again was put there by another download, which has listed it.
  const bool is_stale =
      !listed && when == Unlist::if_gone && ::access((directory / name).c_str(), F_OK) == 0;
  if (lock.held() && !is_stale)
    edit_locked_list(directory, name, listed);
  return !lock.is_busy();
}

} // namespace

bool set_hidden(const URL& url, bool hidden, Unlist when) noexcept try {
  const auto path = url.path();
  const auto name = path.filename().native();
  const bool hidden_by_name = name.empty() || name.front() == '.';
  if (hidden_by_name || name.find('\n') != std::string::npos)
    return true;
  if (hidden && !is_plain_file(path))
    return true;
  const auto wait = MainQueue::is_main_thread() ? Wait::no : Wait::yes;
  return edit_list(path.has_parent_path() ? path.parent_path() : fs::path("."), name, hidden, wait,
                   when) ||
         wait == Wait::yes;
} catch (...) {
  return true; // best effort, as above
}

} // namespace ravelin::platform
