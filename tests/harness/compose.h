#pragma once

#include "tests/harness/scripted_server.h"

// The text side of the scripted server: no sockets here.
namespace test {

enum class End { complete, cut, reset, stall };

// What is really sent for a reply; the body lies in the reply.
struct Answer {
  int status = 200;
  std::string head;
  std::string_view body;
  std::string content_range;
  End end = End::complete;
  bool keep_open = false;
};

// The text is everything up to the empty line.
Request parse_request(std::string_view text);
Answer compose(const Reply& reply, const Request& request);

} // namespace test
