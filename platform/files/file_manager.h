#pragma once

#include "ravelin/url.h"

#include <string>
#include <string_view>

namespace ravelin::platform {

/// Questions and changes about files by name.
///
/// Threads: any; it has no state. Errors: `std::system_error` whose text names the file.
class FileManager {
public:
  static FileManager& default_manager();

  /// Also true for directories and what else bears the name; false for a link to nothing.
  bool file_exists(const URL& url) const;
  bool is_directory(const URL& url) const;
  /// Makes an empty file, with no word about the outcome.
  void create_file(const URL& url) noexcept;
  /// Removes a file or a symbolic link, and its line in the directory's list of hidden names.
  /// Directories and devices are refused: they are not ours to remove.
  void remove_item(const URL& url);
};

/// The whole file as text, at most `limit` bytes. Throws for larger ones too.
std::string read_text(const URL& url, std::size_t limit);
/// What outlives a power cut: `lasting` text is flushed to storage together with its name.
enum class Lasting { yes, no };
/// Puts `text` in place whole or not at all. A killed process leaves at most one temporary file,
/// under a fixed name, which the next write replaces.
void write_text_atomically(const URL& url, std::string_view text, Lasting lasting = Lasting::yes);
/// Removes the temporary file that a killed process may have left beside `url`.
void remove_temporary_of(const URL& url) noexcept;

} // namespace ravelin::platform
