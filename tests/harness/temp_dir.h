#pragma once

#include <filesystem>
#include <string>
#include <string_view>

namespace test {

// A directory of its own for one test, removed with everything in it at the end.
class TempDir {
public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  const std::filesystem::path& path() const { return path_; }
  std::filesystem::path operator/(const std::filesystem::path& name) const { return path_ / name; }

  // Both are binary and throw when the file cannot be written or read.
  std::filesystem::path write(const std::filesystem::path& name, std::string_view text) const;
  std::string read(const std::filesystem::path& name) const;

private:
  std::filesystem::path path_;
};

} // namespace test
