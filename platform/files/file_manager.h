#pragma once

#include "ravelin/url.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace ravelin::platform {

/// Whether a symbolic link in the place of a file is followed.
enum class Links { followed, refused };

/// Operations on files by name.
///
/// Threads: any; it has no state. Errors: `std::system_error` whose text names the file.
class FileManager {
public:
  static FileManager& default_manager();

  /// True for anything of that name, directories too; false for a dangling link.
  bool file_exists(const URL& url) const;
  bool is_directory(const URL& url) const;
  /// Creates an empty file, or truncates an existing one, which `Links::refused` does not. Failures
  /// are not reported.
  void create_file(const URL& url, Links links = Links::followed) noexcept;
  /// Whether other users may write to the directory of `file`, and so may have put anything there.
  bool is_shared_directory(const URL& file) const;
  /// Why what is at `url` may be of somebody else, such as "is a symbolic link"; none if it is not.
  std::optional<std::string> describe_foreign(const URL& url) const;
  /// Removes a file or symbolic link, and its line in the directory's `.hidden` list. Refuses
  /// directories and devices.
  void remove_item(const URL& url);
};

/// Whether it is a file, or a symbolic link to one.
bool is_plain_file(const std::filesystem::path& path);
/// The content of the file. Throws if it has more than `limit` bytes.
std::string read_text(const URL& url, std::size_t limit, Links links = Links::followed);
/// `size` bytes of the file from `offset` on, or what it has of them.
std::string read_range(const URL& url, std::int64_t offset, std::size_t size, Links links);
/// Whether a text and its file name are flushed to storage, so that they survive a power failure.
enum class Flush { yes, no };
/// Replaces the whole file by `text` or does not change it. A killed process leaves at most one
/// temporary file, which the next write replaces.
void write_text_atomically(const URL& url, std::string_view text, Flush flush_mode = Flush::yes);
/// Removes the temporary file that a killed process may have left beside `url`.
void remove_temporary_of(const URL& url) noexcept;

} // namespace ravelin::platform
