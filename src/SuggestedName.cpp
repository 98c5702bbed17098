#include "src/SuggestedName.h"

#include "platform/utf8.h"
#include "ravelin/response.h"
#include "ravelin/text.h"

#include <algorithm>
#include <filesystem>
#include <map>

namespace ravelin {
namespace {

std::string lower(std::string_view text) {
  std::string result(text);
  std::ranges::transform(result, result.begin(),
                         [](char c) { return c >= 'A' && c <= 'Z' ? char(c - 'A' + 'a') : c; });
  return result;
}

std::string_view trimmed(std::string_view text) {
  const auto begin = std::min(text.find_first_not_of(" \t"), text.size());
  return text.substr(begin, text.find_last_not_of(" \t") + 1 - begin);
}

/// Removes a quoted value from the front. A backslash that escapes nothing is part of a path.
std::string take_quoted(std::string_view& rest) {
  std::string value;
  std::size_t at = 1;
  for (; at < rest.size() && rest[at] != '"'; ++at) {
    if (rest[at] == '\\' && at + 1 < rest.size() && (rest[at + 1] == '"' || rest[at + 1] == '\\'))
      ++at;
    value += rest[at];
  }
  rest.remove_prefix(std::min(at + 1, rest.size()));
  return value;
}

/// Keys are in lower case. If a name is repeated, the first value counts.
std::map<std::string, std::string> parameters_of(std::string_view rest) {
  std::map<std::string, std::string> result;
  while (!rest.empty()) {
    const auto end = rest.find_first_of("=;");
    const auto name = lower(trimmed(rest.substr(0, end)));
    std::string value;
    if (end != rest.npos && rest[end] == '=') {
      rest.remove_prefix(end + 1);
      rest.remove_prefix(std::min(rest.find_first_not_of(" \t"), rest.size()));
      value = rest.starts_with('"') ? take_quoted(rest)
                                    : std::string(trimmed(rest.substr(0, rest.find(';'))));
    }
    result.emplace(name, value);
    const auto next = rest.find(';');
    rest.remove_prefix(next == rest.npos ? rest.size() : next + 1);
  }
  return result;
}

bool is_utf8(const std::string& text) {
  return valid_utf8(text).find("\xEF\xBF\xBD") == std::string::npos;
}

/// Decodes "UTF-8''na%C3%AFve". Other character sets are obsolete.
std::optional<std::string> decoded(const std::string& value) {
  const auto language = value.find('\'');
  const auto text = value.find('\'', language + 1);
  if (language == value.npos || text == value.npos || lower(value.substr(0, language)) != "utf-8")
    return std::nullopt;
  auto name = URL("file://" + value.substr(text + 1)).path().native();
  return is_utf8(name) ? std::optional(name) : std::nullopt;
}

/// Keeps the extension, and does not split a character.
std::string shortened(const std::string& name, std::size_t size) {
  auto extension = std::filesystem::path(name).extension().native();
  if (extension.size() > 20)
    extension.clear();
  auto end = size - extension.size();
  const auto min_end = end - 3; // a character has at most four bytes
  while (end > min_end && (static_cast<unsigned char>(name[end]) & 0xC0) == 0x80)
    --end;
  return name.substr(0, end) + extension;
}

/// Names from a server must not hide the file either.
std::optional<std::string> server_name(const std::string& name) {
  auto safe = safe_name(name.substr(name.find_last_of("/\\") + 1));
  if (safe && safe->front() == '.')
    safe->front() = '_';
  return safe;
}

} // namespace

std::optional<std::string> name_from_disposition(std::string_view field) {
  const auto parameters = parameters_of(field);
  if (const auto found = parameters.find("filename*"); found != parameters.end())
    if (const auto text = decoded(found->second))
      if (auto name = server_name(*text))
        return name;
  const auto found = parameters.find("filename");
  return found == parameters.end() ? std::nullopt : server_name(found->second);
}

std::optional<std::string> safe_name(std::string name) {
  name = platform::replace_controls(valid_utf8(name), '_');
  std::ranges::replace(name, '/', '_');
  constexpr std::size_t max_size = 200; // bytes; leaves room for suffixes
  if (name.size() > max_size)
    name = shortened(name, max_size);
  if (name.empty() || name == "." || name == "..")
    return std::nullopt;
  if (name.front() == '-')
    name.front() = '_'; // or programs would take it for an option
  return name;
}

std::optional<std::string> suggested_name(const URL& url) {
  const auto text = url.text();
  std::string_view link = text;
  link = link.substr(0, link.find_first_of("?#"));
  if (const auto scheme = link.find("://"); scheme != std::string_view::npos)
    link.remove_prefix(scheme + 3);
  const auto path = link.find('/');
  if (path == std::string_view::npos)
    return std::nullopt;
  const auto segment = link.substr(link.find_last_of('/') + 1);
  return safe_name(URL("file:///" + std::string(segment)).path().native().substr(1));
}

} // namespace ravelin
