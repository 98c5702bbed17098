#pragma once

#include "tests/harness/loopback_socket.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace test {

using Headers = std::vector<std::pair<std::string, std::string>>;
using Position = std::optional<std::size_t>; // in the body of one answer, or its range

// One answer and what goes wrong with it. Of several positions the smallest one acts.
struct Reply {
  int status = 200;
  Headers headers{}; // besides those that the server makes itself
  std::string body{};
  bool accept_ranges = true;                   // announce byte ranges and serve a single one as 206
  bool honour_ranges = true;                   // false: announce, but send everything as 200
  std::optional<std::string> content_range{};  // instead of the true one; empty: leave it out
  std::optional<std::string> content_length{}; // instead of the true one
  bool send_length = true;
  bool chunked = false;
  std::chrono::milliseconds header_delay{0};
  std::size_t piece = 65536;                // the body goes out in pieces of this size...
  std::chrono::milliseconds piece_delay{0}; // ...with this pause between them
  Position cut_after{};                     // orderly close after so many bytes
  Position reset_after{};                   // RST, once the client's system has so many bytes
  Position stall_after{};                   // silence, until the client leaves or the server ends
  std::optional<std::string> raw{};         // exactly these bytes instead of an answer, then close
  std::string drip{};                       // after `raw`, again and again until the client leaves
  bool close_at_once = false;               // no byte at all
};

struct Request {
  std::string method{};
  std::string target{};
  Headers headers{};
  int index = 0; // number of arrival, from 0
  // The first header of that name in any case of letters.
  std::optional<std::string> header(const char* name) const;
};

// Called for one request at a time, in their order, on a thread of the server. It must not ask the
// server anything or outlast the test. An exception from it ends the program.
using Script = std::function<Reply(const Request&)>;

// An HTTP/1.1 server on a free loopback port, with a thread and one request for each connection.
// The destructor drops every connection at once, whatever state it is in.
class ScriptedServer {
public:
  explicit ScriptedServer(Script script)
      : script_(std::move(script)), acceptor_([this] { accept(); }) {}
  explicit ScriptedServer(Reply reply) // the same for every request
      : ScriptedServer(Script([reply = std::move(reply)](const Request&) { return reply; })) {}
  ~ScriptedServer();

  std::string url(const std::string& path = "/file.bin") const {
    return "http://127.0.0.1:" + std::to_string(listener_.port()) + path;
  }
  std::vector<Request> requests() const;
  // Returns when n requests have arrived in all; throws when they do not within ten seconds.
  void wait_for_requests(std::size_t n) const;
  // Body bytes handed to the system: never less than what the clients have received.
  std::int64_t bytes_sent() const { return sent_; }

private:
  void accept();
  void serve(int connection);
  Reply ask_script(Request request);
  void answer(int connection, const Reply& reply, const Request& request);

  const LoopbackSocket listener_{LoopbackSocket::Use::listen};
  const Script script_;
  mutable std::mutex mutex_;
  mutable std::condition_variable changed_; // a request has come, or a connection is gone
  std::vector<Request> requests_;
  std::set<int> connections_;
  std::atomic<std::int64_t> sent_ = 0;
  std::thread acceptor_; // last: it uses the others
};

} // namespace test
