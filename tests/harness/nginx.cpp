#include "tests/harness/nginx.h"

#include "tests/harness/loopback_socket.h"

#include <algorithm>
#include <chrono>
#include <stdexcept>
#include <thread>
#include <vector>

namespace test {
namespace {
namespace fs = std::filesystem;
using namespace std::chrono_literals;

// Polls a condition that no file descriptor tells about.
template <class Condition> bool holds_soon(Condition condition) {
  const auto limit = std::chrono::steady_clock::now() + 10s;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > limit) {
      return false;
    }
    std::this_thread::sleep_for(2ms);
  }
  return true;
}

constexpr std::string_view certificate_settings = R"([req]
distinguished_name = name
[name]
[ca]
basicConstraints = critical, CA:TRUE
keyUsage = critical, keyCertSign, cRLSign
subjectKeyIdentifier = hash
[server]
basicConstraints = critical, CA:FALSE
subjectAltName = IP:127.0.0.1, DNS:localhost
subjectKeyIdentifier = hash
authorityKeyIdentifier = keyid
)";

// Signed by itself or, with an authority, by that one.
void make_certificate(const TempDir& dir, const std::string& name, const std::string& authority) {
  const auto file = [&dir](const std::string& part) { return (dir / part).string(); };
  std::vector<std::string> command{"openssl", "req", "-x509", "-nodes", "-days", "30"};
  const auto add = [&command](const char* option, const std::string& value) {
    command.insert(command.end(), {option, value});
  };
  add("-newkey", "ec");
  add("-pkeyopt", "ec_paramgen_curve:prime256v1");
  add("-config", file("certificates.conf"));
  add("-extensions", name);
  add("-subj", "/CN=test " + name);
  add("-keyout", file(name + ".key"));
  add("-out", file(name + ".pem"));
  if (!authority.empty()) {
    add("-CA", file(authority + ".pem"));
    add("-CAkey", file(authority + ".key"));
  }
  if (ChildProcess(command, file("openssl.log")).wait() != 0) {
    throw std::runtime_error("openssl failed: " + dir.read("openssl.log"));
  }
}

} // namespace

Nginx::Nginx(const Options& options) : scheme_(options.tls ? "https" : "http") {
  fs::create_directory(root_);
  if (options.tls) {
    dir_.write("certificates.conf", certificate_settings);
    make_certificate(dir_, "ca", "");
    make_certificate(dir_, "server", "ca");
  }
  start(options);
}

void Nginx::start(const Options& options) {
  const LoopbackSocket reservation(LoopbackSocket::Use::reserve);
  port_ = reservation.port();
  const std::string file = dir_.write("nginx.conf", configuration(options)).string();
  const std::string log = (dir_ / "error.log").string();
  process_ = std::make_unique<ChildProcess>(
      std::vector<std::string>{"nginx", "-p", dir_.path().string(), "-c", file, "-e", log}, log);
  // nginx writes this file as soon as it listens; until then a connection would only fail.
  const auto listens = [this] { return fs::exists(dir_ / "nginx.pid"); };
  if (!holds_soon([&] { return process_->poll() || listens(); }) || process_->poll()) {
    throw std::runtime_error("nginx did not start: " + dir_.read("error.log"));
  }
}

// One process without a master: as root, a master's workers would be another user, who cannot
// look into the directory; and nothing is left if the process is killed.
std::string Nginx::configuration(const Options& options) const {
  std::string text = R"(daemon off;
master_process off;
pid nginx.pid;
events { worker_connections 512; }
http {
  default_type application/octet-stream;
  log_format short '$request_method $request_uri $status $body_bytes_sent range="$http_range"';
  access_log access.log short;
  client_body_temp_path body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  sendfile on;
  tcp_nopush on;
  server {
    root root;
)";
  text += "    listen 127.0.0.1:" + std::to_string(port_) + " reuseport" +
          (options.tls ? " ssl;\n" : ";\n");
  if (options.tls) {
    text += "    ssl_certificate server.pem;\n    ssl_certificate_key server.key;\n";
  }
  if (!options.limit_rate.empty()) {
    text += "    limit_rate " + options.limit_rate + ";\n";
  }
  return text + options.extra_locations + "\n  }\n}\n";
}

std::string Nginx::url(std::string_view path) const {
  return scheme_ + "://127.0.0.1:" + std::to_string(port_) + std::string(path);
}

std::string Nginx::access_log(std::size_t lines) const {
  std::string text;
  const auto complete = [&] {
    text = dir_.read("access.log");
    return static_cast<std::size_t>(std::count(text.begin(), text.end(), '\n')) >= lines;
  };
  if (!holds_soon(complete)) {
    throw std::runtime_error("the access log has only these lines:\n" + text);
  }
  return text;
}

} // namespace test
