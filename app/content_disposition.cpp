#include "app/content_disposition.h"

#include "app/naming.h"
#include "ravelin/url.h"

#include <algorithm>
#include <map>

namespace ravelin::app {
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

/// Takes a value in quotes off the front. A backslash that quotes nothing is one of a path.
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

/// By their names in lower case; of two with one name the first.
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
  return printable(text).find("\xEF\xBF\xBD") == std::string::npos;
}

/// "UTF-8''na%C3%AFve" decoded; other character sets are out of use.
std::optional<std::string> decoded(const std::string& value) {
  const auto language = value.find('\'');
  const auto text = value.find('\'', language + 1);
  if (language == value.npos || text == value.npos || lower(value.substr(0, language)) != "utf-8")
    return std::nullopt;
  auto name = URL("file://" + value.substr(text + 1)).path().native();
  return is_utf8(name) ? std::optional(name) : std::nullopt;
}

/// Header fields are read as Latin-1, but many servers send UTF-8.
std::string as_meant(const std::string& text) {
  std::string bytes;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const auto first = static_cast<unsigned char>(text[i]);
    if (first > 0xC3)
      return text; // no Latin-1
    const bool pair = first >= 0xC2 && i + 1 < text.size();
    bytes += pair ? static_cast<char>((first << 6) | (text[++i] & 0x3F)) : text[i];
  }
  return is_utf8(bytes) ? bytes : text;
}

std::optional<std::string> safe(const std::string& name) {
  auto usable = usable_name(name.substr(name.find_last_of("/\\") + 1));
  if (usable && usable->front() == '.')
    usable->front() = '_'; // a server plants no hidden file
  return usable;
}

} // namespace

std::optional<std::string> name_from_disposition(std::string_view field) {
  const auto parameters = parameters_of(field);
  if (const auto found = parameters.find("filename*"); found != parameters.end())
    if (const auto text = decoded(found->second))
      if (auto name = safe(*text))
        return name;
  const auto found = parameters.find("filename");
  return found == parameters.end() ? std::nullopt : safe(as_meant(found->second));
}

} // namespace ravelin::app
