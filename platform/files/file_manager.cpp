#include "platform/files/file_manager.h"

#include "platform/files/file_calls.h"
#include "platform/files/hidden_list.h"
#include "platform/threads/thread_pool.h"

#include <cerrno>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace ravelin::platform {
namespace {

namespace fs = std::filesystem;

[[noreturn]] void fail(int reason, const char* what, const fs::path& path) {
  throw std::system_error(reason, std::system_category(),
                          std::string("could not ") + what + " '" + path.native() + "'");
}

/// Closes its descriptor and preserves `errno` from the call that failed.
struct Descriptor {
  int number;
  ~Descriptor() {
    const int reason = errno;
    if (number >= 0)
      file_calls().close(number);
    errno = reason;
  }
};

bool write_all(int descriptor, std::string_view text) {
  off_t offset = 0;
  while (!text.empty()) {
    const auto written = file_calls().pwrite(descriptor, text.data(), text.size(), offset);
    if (written < 0 && errno == EINTR)
      continue;
    if (written == 0)
      errno = EIO; // no progress and no error code
    if (written <= 0)
      return false;
    text.remove_prefix(static_cast<std::size_t>(written));
    offset += written;
  }
  return true;
}

/// Replaces what is at `path` by a new file. Never opens an existing one: it may be a link planted
/// by someone else.
int create_new(const fs::path& path) {
  constexpr int flags = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW;
  const int descriptor = file_calls().open(path.c_str(), flags, 0666);
  if (descriptor >= 0 || errno != EEXIST || file_calls().unlink(path.c_str()) != 0)
    return descriptor;
  return file_calls().open(path.c_str(), flags, 0666);
}

fs::path directory_of(const fs::path& path) {
  return path.has_parent_path() ? path.parent_path() : fs::path(".");
}

bool flush_directory(const fs::path& directory) {
  const Descriptor opened{file_calls().open(directory.c_str(), O_RDONLY | O_DIRECTORY, 0)};
  if (opened.number < 0)
    return errno == EACCES; // a directory without read permission cannot be flushed
  while (file_calls().fsync(opened.number) != 0)
    if (errno != EINTR)
      return errno == EINVAL || errno == ENOSYS || errno == EOPNOTSUPP;
  return true;
}

bool flush(int descriptor) {
  while (file_calls().fdatasync(descriptor) != 0)
    if (errno != EINTR)
      return false;
  return true;
}

bool write_new(const fs::path& path, std::string_view text, Flush flush_mode) {
  const Descriptor opened{create_new(path)};
  return opened.number >= 0 && write_all(opened.number, text) &&
         (flush_mode == Flush::no || flush(opened.number));
}

int open_to_read(const fs::path& path, Links links) {
  const int flags = O_RDONLY | O_NONBLOCK | O_NOCTTY | // opening a pipe would block
                    (links == Links::refused ? O_NOFOLLOW : 0);
  Descriptor opened{file_calls().open(path.c_str(), flags, 0)};
  if (opened.number < 0)
    fail(errno, "open", path);
  struct stat status {};
  if (::fstat(opened.number, &status) != 0)
    fail(errno, "read", path);
  if (!S_ISREG(status.st_mode))
    fail(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, "read", path);
  return std::exchange(opened.number, -1);
}

/// Returns how many bytes there were.
std::size_t read_all(int descriptor, char* to, std::size_t size, std::int64_t offset,
                     const fs::path& path) {
  std::size_t done = 0;
  while (done < size) {
    const auto got =
        ::pread(descriptor, to + done, size - done, offset + static_cast<std::int64_t>(done));
    if (got < 0 && errno == EINTR)
      continue;
    if (got < 0)
      fail(errno, "read", path);
    if (got == 0)
      break;
    done += static_cast<std::size_t>(got);
  }
  return done;
}

/// For the main thread, which does not wait for the list.
void unlist_in_background(const URL& url) try {
  run_in_background([url] { set_hidden(url, false, Unlist::if_gone); });
} catch (const std::system_error&) {
  // There is no thread: the line stays until a file of that name is complete.
}

fs::path temporary_path(fs::path path) {
  return path += ".tmp";
}

} // namespace

FileManager& FileManager::default_manager() {
  static FileManager manager;
  return manager;
}

bool FileManager::file_exists(const URL& url) const {
  return ::access(url.path().c_str(), F_OK) == 0;
}

bool FileManager::is_directory(const URL& url) const {
  struct stat status {};
  return ::stat(url.path().c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void FileManager::create_file(const URL& url, Links links) noexcept {
  const auto path = url.path();
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_NONBLOCK | O_NOCTTY;
  const int new_only = links == Links::refused ? O_EXCL | O_NOFOLLOW : 0;
  const Descriptor created{file_calls().open(path.c_str(), flags | new_only, 0666)};
  if (created.number >= 0)
    flush_directory(directory_of(path)); // before any record counts bytes of this file
}

bool FileManager::is_shared_directory(const URL& file) const {
  struct stat status {};
  if (::stat(directory_of(file.path()).c_str(), &status) != 0)
    return false;
  const bool is_ours = status.st_uid == ::geteuid() || status.st_uid == 0;
  return !is_ours || (status.st_mode & (S_IWGRP | S_IWOTH)) != 0;
}

std::optional<std::string> FileManager::describe_foreign(const URL& url) const {
  struct stat status {};
  if (::lstat(url.path().c_str(), &status) != 0)
    return std::nullopt;
  if (S_ISLNK(status.st_mode))
    return "is a symbolic link";
  return status.st_uid == ::geteuid() ? std::nullopt : std::optional("belongs to another user");
}

void FileManager::remove_item(const URL& url) {
  const auto path = url.path();
  struct stat status {};
  if (::lstat(path.c_str(), &status) == 0 && !S_ISREG(status.st_mode) && !S_ISLNK(status.st_mode))
    fail(S_ISDIR(status.st_mode) ? EISDIR : EPERM, "remove", path);
  if (file_calls().unlink(path.c_str()) != 0)
    fail(errno, "remove", path);
  if (!set_hidden(url, false))
    unlist_in_background(url);
}

bool is_plain_file(const fs::path& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

std::string read_range(const URL& url, std::int64_t offset, std::size_t size, Links links) {
  const auto path = url.path();
  const Descriptor opened{open_to_read(path, links)};
  std::string text(size, '\0');
  text.resize(read_all(opened.number, text.data(), size, offset, path));
  return text;
}

std::string read_text(const URL& url, std::size_t limit, Links links) {
  const auto path = url.path();
  const Descriptor opened{open_to_read(path, links)};
  std::string text(4096, '\0');
  for (std::size_t size = 0;;) {
    size += read_all(opened.number, text.data() + size, text.size() - size,
                     static_cast<std::int64_t>(size), path);
    if (size > limit)
      fail(EFBIG, "read", path);
    const bool is_whole = size < text.size();
    text.resize(is_whole ? size : text.size() * 2);
    if (is_whole)
      return text;
  }
}

void remove_temporary_of(const URL& url) noexcept {
  file_calls().unlink(temporary_path(url.path()).c_str());
}

void write_text_atomically(const URL& url, std::string_view text, Flush flush_mode) {
  const auto path = url.path();
  const auto temporary = temporary_path(path);
  const bool placed = write_new(temporary, text, flush_mode) &&
                      file_calls().rename(temporary.c_str(), path.c_str()) == 0;
  if (!placed) {
    const int reason = errno;
    file_calls().unlink(temporary.c_str());
    fail(reason, "write", path);
  }
  if (flush_mode == Flush::yes && !flush_directory(directory_of(path)))
    fail(errno, "flush the directory of", path);
}

} // namespace ravelin::platform
