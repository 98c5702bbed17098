#include "tests/harness/scripted_server.h"

#include <algorithm>
#include <cstdio>
#include <sstream>
#include <stdexcept>

#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <strings.h>
#include <sys/ioctl.h>

namespace test {
namespace {

using namespace std::chrono_literals;

struct ConnectionOver {};

// Waits, unless the client leaves or the server ends.
void pause(int connection, std::chrono::milliseconds time) {
  pollfd over{connection, POLLRDHUP, 0};
  if (time > 0ms && poll(&over, 1, static_cast<int>(time.count())) != 0)
    throw ConnectionOver();
}

void send(int connection, const std::string& text) {
  for (std::size_t at = 0; at < text.size();) {
    const auto done = ::send(connection, &text[at], text.size() - at, MSG_NOSIGNAL);
    if (done <= 0)
      throw ConnectionOver();
    at += static_cast<std::size_t>(done);
  }
}

Request receive(int connection) {
  std::string text;
  for (char bytes[4096]; !text.ends_with("\r\n\r\n");) {
    const auto size = recv(connection, bytes, sizeof bytes, 0);
    if (size <= 0)
      throw ConnectionOver();
    text.append(bytes, static_cast<std::size_t>(size));
  }
  Request request;
  std::istringstream lines(text);
  std::string name, value;
  lines >> request.method >> request.target >> value >> std::ws;
  while (std::getline(lines, name, ':') && std::getline(lines >> std::ws, value, '\r') >> std::ws)
    request.headers.emplace_back(name, value);
  return request;
}

// What is sent of the body.
struct Slice {
  int status;
  std::string_view body;
  std::string range{};
};

Slice slice_of(const Reply& reply, const Request& request) {
  std::size_t first = 0, last = reply.body.npos;
  const auto range = request.header("Range").value_or("");
  if (reply.status != 200 || !reply.accept_ranges || !reply.honour_ranges ||
      std::sscanf(range.c_str(), "bytes=%zu-%zu", &first, &last) < 1)
    return {reply.status, reply.body};
  const auto total = "/" + std::to_string(reply.body.size());
  if (first >= reply.body.size())
    return {416, "", "bytes *" + total};
  const auto size = std::max(last, last + 1) - first; // which an open end must not overflow
  const auto body = std::string_view(reply.body).substr(first, size);
  last = first + body.size() - 1;
  return {206, body, "bytes " + std::to_string(first) + "-" + std::to_string(last) + total};
}

std::string head_of(const Reply& reply, const Slice& slice) {
  auto headers = reply.headers;
  headers.insert(headers.end(), {{"Connection", "close"},
                                 {"Date", "Tue, 10 Nov 2026 08:12:55 GMT"},
                                 {"Accept-Ranges", reply.accept_ranges ? "bytes" : ""},
                                 {"Transfer-Encoding", reply.chunked ? "chunked" : ""}});
  if (!slice.range.empty())
    headers.emplace_back("Content-Range", reply.content_range.value_or(slice.range));
  if (reply.content_length || (reply.send_length && !reply.chunked))
    headers.emplace_back("Content-Length",
                         reply.content_length.value_or(std::to_string(slice.body.size())));
  std::string head = "HTTP/1.1 " + std::to_string(slice.status) + " \r\n";
  for (const auto& [name, value] : headers)
    head += value.empty() ? "" : name + ": " + value + "\r\n";
  return head + "\r\n";
}

} // namespace

std::optional<std::string> Request::header(const char* name) const {
  for (const auto& [known, value] : headers)
    if (strcasecmp(known.c_str(), name) == 0)
      return value;
  return std::nullopt;
}

ScriptedServer::~ScriptedServer() {
  shutdown(listener_.number(), SHUT_RDWR);
  acceptor_.join();
  std::unique_lock lock(mutex_);
  for (const int connection : connections_)
    shutdown(connection, SHUT_RDWR);
  changed_.wait(lock, [this] { return connections_.empty(); });
}

std::vector<Request> ScriptedServer::requests() const {
  const std::lock_guard lock(mutex_);
  return requests_;
}

void ScriptedServer::wait_for_requests(std::size_t n) const {
  std::unique_lock lock(mutex_);
  if (!changed_.wait_for(lock, 10s, [&] { return requests_.size() >= n; }))
    throw std::runtime_error("only " + std::to_string(requests_.size()) + " requests arrived");
}

void ScriptedServer::accept() {
  for (int connection; // programs started by a test must not keep it open
       (connection = accept4(listener_.number(), nullptr, nullptr, SOCK_CLOEXEC)) >= 0;) {
    const std::lock_guard lock(mutex_);
    connections_.insert(connection);
    std::thread([this, connection] { serve(connection); }).detach();
  }
}

void ScriptedServer::serve(int connection) {
  try {
    const auto request = receive(connection);
    answer(connection, ask_script(request), request);
  } catch (const ConnectionOver&) {
  }
  const std::lock_guard lock(mutex_); // the last touch of this object
  close(connection);
  connections_.erase(connection);
  changed_.notify_all();
}

Reply ScriptedServer::ask_script(Request request) {
  const std::lock_guard lock(mutex_);
  request.index = static_cast<int>(requests_.size());
  requests_.push_back(request);
  changed_.notify_all();
  return script_(request);
}

void ScriptedServer::answer(int connection, const Reply& reply, const Request& request) {
  pause(connection, reply.header_delay);
  if (reply.raw || reply.close_at_once) {
    for (send(connection, reply.raw.value_or("")); !reply.drip.empty(); pause(connection, 20ms))
      send(connection, reply.drip);
    return;
  }

  const auto slice = slice_of(reply, request);
  const int on = 1;
  setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
  send(connection, head_of(reply, slice));
  const auto npos = std::string::npos;
  const auto end = std::min({reply.cut_after.value_or(npos), reply.reset_after.value_or(npos),
                             reply.stall_after.value_or(npos)});
  const auto body = slice.body.substr(0, end);
  for (std::size_t at = 0; at < body.size(); at += reply.piece) {
    pause(connection, at == 0 ? 0ms : reply.piece_delay);
    const auto piece = body.substr(at, reply.piece);
    sent_ += static_cast<std::int64_t>(piece.size());
    std::ostringstream chunk;
    chunk << std::hex << piece.size() << "\r\n" << piece << "\r\n";
    send(connection, reply.chunked ? chunk.str() : std::string(piece));
  }
  if (reply.chunked && end == npos)
    send(connection, "0\r\n\r\n");
  if (reply.stall_after == end)
    pause(connection, 24h);
  if (reply.reset_after == end) {
    // A reset throws away what the client's system has not acknowledged yet, hence the wait.
    for (int unsent = 1; ioctl(connection, SIOCOUTQ, &unsent) == 0 && unsent > 0;)
      pause(connection, 1ms);
    const linger at_once{1, 0};
    setsockopt(connection, SOL_SOCKET, SO_LINGER, &at_once, sizeof at_once);
  }
}

} // namespace test
