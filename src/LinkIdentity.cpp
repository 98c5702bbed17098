#include "src/LinkIdentity.h"

#include "bramblekit/file_marks.h"

#include <cstdint>
#include <string_view>

namespace ravelin {
namespace {

constexpr const char* link_attribute = "ravelin_link";
constexpr const char* etag_attribute = "ravelin_etag";
constexpr const char* date_attribute = "ravelin_last_modified";

/// The link without its fragment and credentials.
std::string plain(std::string link) {
  link.erase(std::min(link.find('#'), link.size()));
  const auto scheme = link.find("://");
  if (scheme == std::string::npos)
    return link;
  const auto host = scheme + 3;
  const auto at = link.substr(host, link.find_first_of("/?", host) - host).rfind('@');
  return at == std::string::npos ? link : link.erase(host, at + 1);
}

/// FNV-1a: it has to distinguish links, not to resist attacks.
std::string digest(std::string_view text) {
  std::uint64_t hash = 0xcbf29ce484222325;
  for (const char c : text)
    hash = (hash ^ static_cast<unsigned char>(c)) * 0x100000001b3;
  constexpr std::string_view digits = "0123456789abcdef";
  std::string result;
  for (int shift = 60; shift >= 0; shift -= 4)
    result += digits[(hash >> shift) & 15];
  return result;
}

/// Two digests: of the link without its query, and of the whole link.
std::string make_note(const URL& url) {
  const auto link = plain(url.text());
  return digest(std::string_view(link).substr(0, link.find('?'))) + " " + digest(link);
}

} // namespace

Origin origin_of(const URL& file, const URL& link) {
  const auto noted = platform::extended_attribute(file, link_attribute);
  if (!noted)
    return Origin::unknown;
  const auto ours = make_note(link);
  if (*noted == ours)
    return Origin::same_link;
  return noted->substr(0, noted->find(' ')) == ours.substr(0, ours.find(' ')) ? Origin::same_path
                                                                              : Origin::other_link;
}

void note_origin(const URL& file, const URL& link) {
  bramblekit::ext_attr(file)[link_attribute] = bramblekit::to_data(make_note(link));
}

ContentVersion noted_version(const URL& file, const ResumeData& record) {
  return {platform::extended_attribute(file, etag_attribute),
          platform::extended_attribute(file, date_attribute), record.content_length,
          record.server_side_date};
}

void note_version(const URL& file, const ContentVersion& version) {
  const auto note = [&](const char* name, const std::optional<std::string>& value) {
    bramblekit::ext_attr(file)[name] = value ? bramblekit::to_data(*value) : std::nullopt;
  };
  note(etag_attribute, version.strong_etag);
  note(date_attribute, version.last_modified);
}

} // namespace ravelin
