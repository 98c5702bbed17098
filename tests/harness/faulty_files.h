#pragma once

#include "platform/files/file_calls.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string_view>

namespace test {

// The system's file calls, in use while this lives. Each first asks the hook, on any thread, with
// its own name and the path that it works on; the answer true makes it fail with EIO.
class FaultyFiles final : public ravelin::platform::FileCalls {
  using System = FileCalls;

public:
  using Hook = std::function<bool(std::string_view call, const std::string& path)>;
  explicit FaultyFiles(Hook hook) : hook_(std::move(hook)) {
    ravelin::platform::set_file_calls(this);
  }
  ~FaultyFiles() override { ravelin::platform::set_file_calls(nullptr); }

  int open(const char* path, int flags, mode_t mode) override {
    return fails("open", path) ? -1 : System::open(path, flags, mode);
  }
  ssize_t pwrite(int f, const void* bytes, std::size_t size, off_t at) override {
    return fails("pwrite", f) ? -1 : System::pwrite(f, bytes, size, at);
  }
  int rename(const char* from, const char* to) override {
    return fails("rename", to) ? -1 : System::rename(from, to);
  }
  int fdatasync(int f) override { return fails("fdatasync", f) ? -1 : System::fdatasync(f); }
  int fsync(int f) override { return fails("fsync", f) ? -1 : System::fsync(f); }
  int ftruncate(int f, off_t n) override { return fails("cut", f) ? -1 : System::ftruncate(f, n); }
  int reserve(int f, off_t n) override { return fails("reserve", f) ? -1 : System::reserve(f, n); }
  int unlink(const char* p) override { return fails("unlink", p) ? -1 : System::unlink(p); }

private:
  bool fails(std::string_view call, const std::string& path) const {
    const bool failing = hook_(call, path);
    errno = failing ? EIO : errno;
    return failing;
  }
  bool fails(std::string_view call, int f) const {
    return fails(call, std::filesystem::read_symlink("/proc/self/fd/" + std::to_string(f)));
  }
  const Hook hook_;
};

} // namespace test
