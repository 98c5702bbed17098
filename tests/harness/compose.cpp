#include "tests/harness/compose.h"

#include <algorithm>
#include <charconv>
#include <system_error>

namespace test {
namespace {

bool same_name(std::string_view a, std::string_view b) {
  // Header names are ASCII, so the one bit that tells the cases apart is enough.
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char x, char y) { return (x | 0x20) == (y | 0x20); });
}

// Takes the part before the separator off the front of the text.
std::string_view take(std::string_view& text, std::string_view separator) {
  const auto part = text.substr(0, text.find(separator));
  text.remove_prefix(std::min(text.size(), part.size() + separator.size()));
  return part;
}

std::optional<std::size_t> to_number(std::string_view text) {
  std::size_t value = 0;
  const char* end = text.data() + text.size();
  const auto [rest, error] = std::from_chars(text.data(), end, value);
  return error == std::errc{} && rest == end ? std::optional(value) : std::nullopt;
}

// From first up to, but without, end.
struct Range {
  std::size_t first = 0;
  std::size_t end = 0;
};

// Nothing for several ranges or nonsense: those are answered with the whole body.
std::optional<Range> parse_range(std::string_view text, std::size_t size) {
  if (take(text, "=") != "bytes" || text.find('-') == text.npos) {
    return std::nullopt;
  }
  const auto from = take(text, "-");
  const auto first = to_number(from);
  const auto last = to_number(text);
  if (first && text.empty()) {
    return Range{*first, size};
  }
  if (from.empty() && last) {
    return Range{size - std::min(size, *last), size};
  }
  if (first && last && *first <= *last) {
    return Range{*first, *last < size ? *last + 1 : size};
  }
  return std::nullopt;
}

std::string usual_reason(int status) {
  switch (status) {
  case 200:
    return "OK";
  case 206:
    return "Partial Content";
  case 301:
    return "Moved Permanently";
  case 302:
    return "Found";
  case 304:
    return "Not Modified";
  case 403:
    return "Forbidden";
  case 404:
    return "Not Found";
  case 416:
    return "Range Not Satisfiable";
  case 429:
    return "Too Many Requests";
  case 500:
    return "Internal Server Error";
  case 503:
    return "Service Unavailable";
  default:
    return "Status";
  }
}

void apply_range(const Reply& reply, const Request& request, Answer& answer) {
  const auto header = request.header("Range");
  if (!header || reply.status != 200 || !reply.accept_ranges || !reply.honour_ranges) {
    return;
  }
  const std::size_t size = reply.body.size();
  const auto range = parse_range(*header, size);
  if (range && range->first < range->end) {
    answer.status = 206;
    answer.body = answer.body.substr(range->first, range->end - range->first);
    answer.content_range = "bytes " + std::to_string(range->first) + "-" +
                           std::to_string(range->end - 1) + "/" + std::to_string(size);
  } else if (range) {
    answer.status = 416;
    answer.body = {};
    answer.content_range = "bytes */" + std::to_string(size);
  }
}

std::string make_head(const Reply& reply, const Answer& answer) {
  const bool usual = reply.reason.empty() || answer.status != reply.status;
  std::string head = "HTTP/1.1 " + std::to_string(answer.status) + " " +
                     (usual ? usual_reason(answer.status) : reply.reason) + "\r\n";
  const auto add = [&head](const std::string& name, const std::string& value) {
    head += value.empty() ? "" : name + ": " + value + "\r\n";
  };
  add("Date", reply.date);
  for (const auto& [name, value] : reply.headers) {
    head += name + ": " + value + "\r\n";
  }
  add("Accept-Ranges", reply.accept_ranges ? "bytes" : "");
  if (answer.status == 206 || answer.status == 416) {
    add("Content-Range", reply.content_range.value_or(answer.content_range));
  }
  if (reply.content_length) {
    head += "Content-Length: " + *reply.content_length + "\r\n";
  } else if (reply.send_length && !reply.chunked) {
    add("Content-Length", std::to_string(answer.body.size()));
  }
  add("Transfer-Encoding", reply.chunked ? "chunked" : "");
  add("Connection", answer.keep_open ? "" : "close");
  return head + "\r\n";
}

void apply_fault(const Reply& reply, Answer& answer) {
  std::size_t limit = std::string_view::npos;
  const auto consider = [&](const std::optional<std::size_t>& position, End end) {
    if (position && *position < limit) {
      limit = *position;
      answer.end = end;
    }
  };
  consider(reply.cut_after, End::cut);
  consider(reply.reset_after, End::reset);
  consider(reply.stall_after, End::stall);
  answer.body = answer.body.substr(0, limit);
}

} // namespace

Request parse_request(std::string_view text) {
  Request request;
  std::string_view first = take(text, "\r\n");
  request.method = take(first, " ");
  request.target = take(first, " ");
  for (auto line = take(text, "\r\n"); !line.empty(); line = take(text, "\r\n")) {
    const auto name = take(line, ":");
    line.remove_prefix(std::min(line.find_first_not_of(" \t"), line.size()));
    request.headers.emplace_back(name, line);
  }
  return request;
}

Answer compose(const Reply& reply, const Request& request) {
  Answer answer;
  answer.status = reply.status;
  answer.body = reply.body;
  apply_range(reply, request, answer);
  const bool has_end = reply.chunked || reply.content_length || reply.send_length;
  answer.keep_open = !reply.close_after && has_end;
  answer.head = make_head(reply, answer); // with the length that the fault will belie
  apply_fault(reply, answer);
  return answer;
}

std::optional<std::string> Request::header(std::string_view name) const {
  for (const auto& [known, value] : headers) {
    if (same_name(known, name)) {
      return value;
    }
  }
  return std::nullopt;
}

} // namespace test
