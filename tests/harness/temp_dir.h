#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <string_view>

namespace test {
namespace fs = std::filesystem;

// A directory of its own for one test, removed with everything in it at the end.
class TempDir {
public:
  TempDir() {
    auto name = (fs::temp_directory_path() / "ravelin-test-XXXXXX").string();
    path_ = fs::canonical(mkdtemp(name.data()) ? name : "");
  }
  ~TempDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TempDir& operator=(TempDir&&) = delete;

  const fs::path& path() const { return path_; }
  fs::path operator/(const fs::path& name) const { return path_ / name; }
  // Both are binary and throw when the file cannot be written or read.
  fs::path write(const fs::path& name, std::string_view text) const {
    std::ofstream out(path_ / name, std::ios::binary);
    out.exceptions(std::ios::failbit | std::ios::badbit);
    out << text << std::flush;
    return path_ / name;
  }
  std::string read(const fs::path& name) const {
    std::ifstream in(path_ / name, std::ios::binary);
    in.exceptions(std::ios::failbit);
    return {std::istreambuf_iterator<char>(in), {}};
  }

private:
  fs::path path_;
};

} // namespace test
