#pragma once

#include "platform/files/file_calls.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <string_view>

namespace test {

// The system's file calls, in use while this lives. Each first asks the hook, on any thread, with
// its own name and the path that it works on; the answer is the error it fails with, or 0.
class FaultyFiles final : public ravelin::platform::FileCalls {
  using System = FileCalls;
  using Path = const char*;

public:
  using Hook = std::function<int(std::string_view call, const std::string& path)>;
  explicit FaultyFiles(Hook hook) : hook_(std::move(hook)) {
    ravelin::platform::set_file_calls(this);
  }
  ~FaultyFiles() override { ravelin::platform::set_file_calls(nullptr); }

  int open(Path p, int flags, mode_t mode) override {
    return fails("open", p) ? -1 : System::open(p, flags, mode);
  }
  ssize_t pwrite(int f, const void* bytes, std::size_t size, off_t at) override {
    return fails("pwrite", f) ? -1 : System::pwrite(f, bytes, std::min(size, max_write), at);
  }
  int fdatasync(int f) override { return fails("fdatasync", f) ? -1 : System::fdatasync(f); }
  int fsync(int f) override { return fails("fsync", f) ? -1 : System::fsync(f); }
  int ftruncate(int f, off_t n) override {
    return fails("ftruncate", f) ? -1 : System::ftruncate(f, n);
  }
  int reserve(int f, off_t n) override { return fails("reserve", f) ? -1 : System::reserve(f, n); }
  int rename(Path p, Path to) override { return fails("rename", to) ? -1 : System::rename(p, to); }
  int unlink(Path p) override { return fails("unlink", p) ? -1 : System::unlink(p); }
  int setxattr(Path p, Path name, const void* value, std::size_t size) override {
    return fails("setxattr", p) ? -1 : System::setxattr(p, name, value, size);
  }
  int removexattr(Path p, Path name) override {
    return fails("removexattr", p) ? -1 : System::removexattr(p, name);
  }

  std::size_t max_write = SIZE_MAX; // bytes of one call

private:
  bool fails(std::string_view call, const std::string& path) const {
    const int error = hook_(call, path);
    errno = error != 0 ? error : errno;
    return error != 0;
  }
  bool fails(std::string_view call, int f) const {
    return fails(call, std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(f)));
  }
  const Hook hook_;
};

} // namespace test
