#include "platform/network/http_date.h"
#include "src/Safeguards.h"

#include <algorithm>
#include <cstdlib>

using namespace ravelin::platform;

// The lines of answers as they come from a server, their values and what the safeguards say.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(bytes), size);
  HeaderCollector head;
  for (std::size_t at = 0, next = 0; at < text.size(); at = next) {
    next = std::min(text.find('\n', at), text.size() - 1) + 1;
    head.add(text.substr(at, next - at));
  }
  const auto& [is_http, http_status, fields] = head.response();
  for (const auto& [name, value] : fields) {
    const auto range = parse_content_range(value).value_or(ContentRange{});
    if (!find_field(fields, name) || range.start < 0 || range.end < range.start ||
        (range.total && *range.total <= range.end))
      std::abort();
    parse_retry_after(value);
  }
  const ravelin::Safeguards safeguards(ravelin::Options::careful());
  const auto known = ravelin::ContentVersion::of_whole(fields);
  if (!safeguards.refuse_response(head.response(), BytesRange{0, 9}, known) && http_status != 206)
    std::abort();
  return 0;
}
