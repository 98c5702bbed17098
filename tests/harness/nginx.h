#pragma once

#include "tests/harness/child_process.h"
#include "tests/harness/loopback_socket.h"
#include "tests/harness/temp_dir.h"

#include <stdexcept>

namespace test {

// A private nginx on a free loopback port, with all its files in a directory of its own. It answers
// as soon as the constructor has returned.
class Nginx {
public:
  struct Options {
    bool tls = false;
    std::string limit_rate = "0";  // for each connection, such as "10m"
    std::string extra_locations{}; // put into the server's configuration as it is
  };

  Nginx() : Nginx(Options{}) {}
  explicit Nginx(const Options& options) : scheme_(options.tls ? "https" : "http") {
    fs::create_directory(root());
    const auto log = dir_.write("log", "");
    ChildProcess({"openssl", "req", "-x509", "-nodes", "-newkey", "ec", "-pkeyopt",
                  "ec_paramgen_curve:prime256v1", "-subj", "/CN=test", "-addext",
                  "subjectAltName=IP:127.0.0.1", "-keyout", dir_ / "key.pem", "-out", ca_file()},
                 log) // signed by itself, so that it is its own authority
        .wait();
    const LoopbackSocket reservation(LoopbackSocket::Use::reserve);
    port_ = reservation.port();
    // One process without a master: as root, a master's workers would be another user, who cannot
    // look into the directory; and nothing is left if the process is killed.
    const auto file =
        dir_.write("nginx.conf", R"(daemon off; master_process off; pid pid; events {}
http { client_body_temp_path temp; proxy_temp_path temp; fastcgi_temp_path temp;
uwsgi_temp_path temp; scgi_temp_path temp; default_type application/octet-stream;
log_format short '$request_method $request_uri $status $body_bytes_sent';
access_log access.log short; sendfile on; tcp_nopush on; ssl_certificate ca.pem;
ssl_certificate_key key.pem; server { root root; )" +
                                     options.extra_locations + " limit_rate " + options.limit_rate +
                                     "; listen 127.0.0.1:" + std::to_string(port_) + " reuseport" +
                                     (options.tls ? " ssl" : "") + "; } }\n");
    process_.emplace(
        std::vector<std::string>{"/usr/sbin/nginx", "-p", dir_.path(), "-c", file, "-e", log}, log);
    // nginx writes this file as soon as it listens; until then a connection would only fail.
    for (; !fs::exists(dir_ / "pid"); std::this_thread::sleep_for(std::chrono::milliseconds(2)))
      if (process_->poll())
        throw std::runtime_error("nginx did not start: " + dir_.read("log"));
  }

  std::string url(const std::string& path = "/file.bin") const {
    return scheme_ + "://127.0.0.1:" + std::to_string(port_) + path;
  }
  fs::path root() const { return dir_ / "root"; } // of the served files
  fs::path ca_file() const { return dir_ / "ca.pem"; }

private:
  TempDir dir_;
  unsigned short port_ = 0;
  std::string scheme_;
  std::optional<ChildProcess> process_; // last, so that it ends before its files go
};

} // namespace test
