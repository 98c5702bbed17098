#pragma once

#include <compare>
#include <filesystem>
#include <functional>
#include <string>
#include <string_view>

namespace ravelin {

/// A link, or the path of a file. Compared and hashed exactly as given.
///
/// Threads: a plain value.
/// Errors: nothing is checked; a request for an invalid link fails.
class [[gnu::visibility("default")]] URL {
public:
  URL() = default; ///< an empty link
  /// A link such as "https://example.org/movie.mkv". Not changed.
  explicit URL(std::string_view link) : text_(link) {}
  /// The file at `path`, which may be relative to the working directory. Not changed.
  static URL file(std::filesystem::path path);

  /// Whether it was made by `file()`.
  bool is_file() const {
    return is_file_;
  }
  /// The path of a file URL, or the decoded path of a "file://" link; otherwise empty.
  std::filesystem::path path() const;
  /// The link as given; for a file URL, "file://" and the percent-encoded absolute path.
  std::string text() const;

  /// For hash containers.
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

/// For hash containers.
template <> struct std::hash<ravelin::URL> {
  /// The hash of `url`.
  std::size_t operator()(const ravelin::URL& url) const { return url.hash(); }
};
