#pragma once

#include <compare>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace ravelin {

/// A network link, or a file named by its path. A value: copied, compared and hashed as given.
///
/// Threads: an ordinary value; distinct objects may be used on distinct threads.
/// Errors: nothing is checked here; a link that is no link fails when it is asked for.
class [[gnu::visibility("default")]] URL {
public:
  URL() = default;
  /// A link as text, such as "https://example.org/movie.mkv". Kept to the letter.
  explicit URL(std::string_view link) : text_(link) {}
  /// The file at `path`, which may be relative to the working directory. Kept to the letter.
  static URL file(std::filesystem::path path);

  /// True for URLs made by `file()`.
  bool is_file() const {
    return is_file_;
  }
  /// The path of a file URL; of a "file:" link its path, decoded; otherwise empty.
  std::filesystem::path path() const;
  /// The link as given; for a file URL, "file://" and the percent-encoded absolute path.
  std::string text() const;

  /// For containers.
  std::size_t hash() const {
    return std::hash<std::string>()(text_);
  }

  friend bool operator==(const URL&, const URL&) = default;
  friend std::strong_ordering operator<=>(const URL&, const URL&) = default;

private:
  std::string text_; // the link, or the native path of a file
  bool is_file_ = false;
};

} // namespace ravelin

/// URLs as keys of containers.
template <> struct std::hash<ravelin::URL> {
  /// Any thread.
  std::size_t operator()(const ravelin::URL& url) const { return url.hash(); }
};
