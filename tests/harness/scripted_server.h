#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace test {

using Headers = std::vector<std::pair<std::string, std::string>>;

// One answer and what goes wrong with it. Positions count the bytes of the body that this answer
// sends (the slice, when a range is served); of several positions the smallest one acts.
struct Reply {
  int status = 200;
  std::string reason{}; // empty: the usual one
  Headers headers{};    // sent besides those that the server makes itself
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

  std::optional<std::size_t> cut_after{};   // orderly close after so many bytes
  std::optional<std::size_t> reset_after{}; // RST, once the client's system has so many bytes
  std::optional<std::size_t> stall_after{}; // silence, until the client leaves or the server ends
  std::optional<std::string> raw{};         // exactly these bytes instead of an answer, then close
  bool close_at_once = false;               // no byte at all

  std::string date = "Tue, 10 Nov 2026 08:12:55 GMT"; // empty: no Date
  bool close_after = true; // false: wait for another request, if the body's end can be told
};

struct Request {
  std::string method{};
  std::string target{};
  Headers headers{};
  int index = 0; // number of arrival, from 0

  // The first header of that name in any case of letters.
  std::optional<std::string> header(std::string_view name) const;
};

// Called for every request, for one at a time, on a thread of the server; it must not outlast the
// test. An exception from it ends the program.
using Script = std::function<Reply(const Request&)>;

// An HTTP/1.1 server on a loopback port of the system's choice. The destructor drops every
// connection at once, whatever state it is in.
class ScriptedServer {
public:
  explicit ScriptedServer(Script script);
  explicit ScriptedServer(Reply reply); // the same for every request
  ~ScriptedServer();
  ScriptedServer(const ScriptedServer&) = delete;
  ScriptedServer& operator=(const ScriptedServer&) = delete;

  std::string url(std::string_view path = "/file.bin") const;
  unsigned short port() const;

  std::vector<Request> requests() const;
  // Returns when n requests have arrived in all; throws when they do not within ten seconds.
  void wait_for_requests(std::size_t n) const;
  // Body bytes handed to the system: never less than what the clients have received.
  std::int64_t bytes_sent() const;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

} // namespace test
