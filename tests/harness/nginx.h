#pragma once

#include "tests/harness/child_process.h"
#include "tests/harness/temp_dir.h"

#include <cstddef>
#include <filesystem>
#include <memory>
#include <string>
#include <string_view>

namespace test {

// A private nginx on a loopback port of the system's choice, with all its files in a directory of
// its own. It answers as soon as the constructor has returned.
class Nginx {
public:
  struct Options {
    bool tls = false;
    std::string limit_rate{};      // for each connection, such as "10m"; empty: no limit
    std::string extra_locations{}; // put into the server's configuration as it is
  };

  Nginx() : Nginx(Options{}) {}
  explicit Nginx(const Options& options);

  std::string url(std::string_view path = "/file.bin") const;
  unsigned short port() const { return port_; }
  const std::filesystem::path& root() const { return root_; } // of the served files
  std::filesystem::path ca_file() const { return dir_ / "ca.pem"; }

  // A line for each finished request: GET /file.bin 206 100 range="bytes=0-99"
  // nginx writes a line after the last byte of its answer, so a test tells how many it expects and
  // this waits for them; it throws after ten seconds.
  std::string access_log(std::size_t lines = 0) const;

private:
  std::string configuration(const Options& options) const;
  void start(const Options& options);

  TempDir dir_;
  std::filesystem::path root_ = dir_ / "root";
  unsigned short port_ = 0;
  std::string scheme_;
  std::unique_ptr<ChildProcess> process_; // last, so that it ends before its files go
};

} // namespace test
