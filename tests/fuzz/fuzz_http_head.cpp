#include "platform/network/http_date.h"
#include "platform/network/http_response.h"
#include "platform/network/range_check.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <string_view>

// The lines of answers as they come from a server, and the parsers of their values.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  ravelin::platform::HeaderCollector head;
  for (std::size_t at = 0; at < text.size();) {
    const auto next = std::min(text.find('\n', at), text.size() - 1) + 1;
    head.add(text.substr(at, next - at));
    at = next;
  }
  for (const auto& [name, value] : head.response().header_fields) {
    if (!ravelin::platform::find_field(head.response().header_fields, name))
      std::abort();
    if (const auto range = ravelin::platform::parse_content_range(value))
      if (range->start < 0 || range->end < range->start ||
          (range->total && *range->total <= range->end))
        std::abort();
    ravelin::platform::parse_http_date(value);
    if (const auto asked = ravelin::platform::parse_requested_range(value))
      ravelin::platform::range_fault(*asked, head.response());
  }
  return 0;
}
