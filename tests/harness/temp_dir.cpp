#include "tests/harness/temp_dir.h"

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <system_error>

namespace test {
namespace fs = std::filesystem;

TempDir::TempDir() {
  const char* base = std::getenv("TMPDIR");
  std::string name = (fs::path(base && *base ? base : "/tmp") / "ravelin-test-XXXXXX").string();
  if (!mkdtemp(name.data())) {
    throw std::system_error(errno, std::generic_category(), "mkdtemp " + name);
  }
  path_ = name;
}

TempDir::~TempDir() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

fs::path TempDir::write(const fs::path& name, std::string_view text) const {
  fs::path file = path_ / name;
  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(text.data(), static_cast<std::streamsize>(text.size()));
  out.close();
  if (!out) {
    throw std::runtime_error("cannot write " + file.string());
  }
  return file;
}

std::string TempDir::read(const fs::path& name) const {
  std::ifstream in(path_ / name, std::ios::binary);
  if (!in) {
    throw std::runtime_error("cannot read " + (path_ / name).string());
  }
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

} // namespace test
