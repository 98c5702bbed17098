#include "ravelin/text.h"

#include "platform/utf8.h"

namespace ravelin {

using platform::sequence_length;

std::string valid_utf8(std::string_view text) {
  std::string result;
  while (!text.empty()) {
    const auto length = sequence_length(text);
    result += length == 0 ? "\xEF\xBF\xBD" : text.substr(0, length);
    text.remove_prefix(std::max<std::size_t>(length, 1));
  }
  return result;
}

std::string printable(std::string_view text) {
  return platform::replace_controls(valid_utf8(text), '?');
}

std::string without_password(std::string_view link) {
  std::string result(link);
  const auto scheme = link.find("://");
  if (scheme == link.npos)
    return result;
  const auto host = scheme + 3;
  const auto authority = link.substr(host, link.find_first_of("/?#", host) - host);
  const auto at = authority.rfind('@');
  const auto colon = authority.find(':');
  if (at == authority.npos || colon == authority.npos || colon > at)
    return result;
  return result.replace(host + colon + 1, at - colon - 1, "***");
}

} // namespace ravelin
