#include "platform/files/file_marks.h"

#include "platform/files/file_calls.h"
#include "platform/files/file_manager.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <mutex>
#include <string>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>
#include <vector>

namespace ravelin::platform {
namespace {

namespace fs = std::filesystem;

constexpr std::size_t longest_list = 4 * 1024 * 1024; // bytes; a larger one is left alone
constexpr std::string_view our_list_mark = "ravelin.made_this_list";

bool is_plain_file(const fs::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

bool is_link(const fs::path& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
}

/// Unprivileged programs own the "user." names only.
std::string attribute_name(std::string_view name) {
  return "user." + std::string(name);
}

/// Keeps other processes from editing the same list meanwhile. Whoever can read the directory can
/// hold its lock for good: after a while the list is left alone.
class DirectoryLock {
public:
  explicit DirectoryLock(const fs::path& directory)
      : descriptor_(::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC)) {
    for (int attempt = 0; descriptor_ >= 0 && attempt < 50; ++attempt) {
      held_ = ::flock(descriptor_, LOCK_EX | LOCK_NB) == 0;
      if (held_ || (errno != EWOULDBLOCK && errno != EINTR))
        return;
      ::usleep(2000);
    }
  }
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
};

struct Edit {
  std::string text;
  bool changed = false;
};

/// `text` with or without a line `name`; every other byte stays.
Edit edited(std::string text, const std::string& name, bool listed) {
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

/// Where attributes are not supported nothing tells, and an empty list serves nobody.
bool made_by_us(const URL& list) {
  return extended_attribute(list, our_list_mark).has_value() || errno == ENOTSUP;
}

void edit_list(const fs::path& directory, const std::string& name, bool listed) {
  // Our own threads wait for each other as long as it takes, and hop to no thread meanwhile: only
  // others may keep us from the lock.
  static auto& ours_at_work = *new std::mutex;
  const std::lock_guard one_of_us(ours_at_work);
  const DirectoryLock lock(directory);
  if (!lock.held())
    return;
  const auto list = URL::file(directory / ".hidden");
  if (!listed)
    remove_temporary_of(list); // of one that was killed, and need not be made again
  const bool existed = FileManager::default_manager().file_exists(list);
  if (!existed && !listed)
    return;
  if (is_link(list.path()) || (existed && !is_plain_file(list.path())))
    return; // somebody keeps the list elsewhere
  const bool ours = !existed || made_by_us(list);
  const auto edit = edited(existed ? read_text(list, longest_list) : "", name, listed);
  if (!edit.changed)
    return;
  if (edit.text.empty() && ours) {
    file_calls().unlink(list.path().c_str());
    return;
  }
  // A list of our own is worth no flush: without it, hidden files are seen for a while.
  write_text_atomically(list, edit.text, ours ? Lasting::no : Lasting::yes);
  if (ours)
    set_extended_attribute(list, our_list_mark, Data::copy_of("true"));
}

} // namespace

void set_extended_attribute(const URL& url, std::string_view name,
                            const std::optional<Data>& value) noexcept try {
  const auto path = url.path();
  if (!is_plain_file(path))
    return;
  const auto full_name = attribute_name(name);
  if (!value) {
    file_calls().removexattr(path.c_str(), full_name.c_str());
    return;
  }
  // Not flushed: the first bytes of the file are, and file systems keep the order of what is told
  // of one file.
  file_calls().setxattr(path.c_str(), full_name.c_str(), value->bytes().data(), value->size());
} catch (...) {
  // Best effort: a mark that cannot be set is not worth a download.
}

std::optional<std::string> extended_attribute(const URL& url, std::string_view name) {
  char value[256];
  const auto size =
      ::getxattr(url.path().c_str(), attribute_name(name).c_str(), value, sizeof value);
  if (size < 0)
    return std::nullopt;
  return std::string(value, static_cast<std::size_t>(size));
}

void set_hidden(const URL& url, bool hidden) noexcept try {
  const auto path = url.path();
  const auto name = path.filename().native();
  const bool hidden_by_name = name.empty() || name.front() == '.';
  if (hidden_by_name || name.find('\n') != std::string::npos)
    return;
  if (hidden && !is_plain_file(path))
    return;
  edit_list(path.has_parent_path() ? path.parent_path() : fs::path("."), name, hidden);
} catch (...) {
  // Best effort, as above.
}

} // namespace ravelin::platform
