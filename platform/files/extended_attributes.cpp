#include "platform/files/extended_attributes.h"

#include "platform/files/file_calls.h"
#include "platform/files/file_manager.h"

#include <cerrno>
#include <string>
#include <sys/xattr.h>
#include <system_error>

namespace ravelin::platform {
namespace {

/// Unprivileged programs may only use the "user." namespace.
std::string attribute_name(std::string_view name) {
  return "user." + std::string(name);
}

} // namespace

void set_extended_attribute(const URL& url, std::string_view name,
                            const std::optional<Data>& value) noexcept try {
  const auto path = url.path();
  if (!is_plain_file(path))
    return;
  const auto full_name = attribute_name(name);
  if (!value) {
    file_calls().removexattr(path.c_str(), full_name.c_str());
    return;
  }
  // Not flushed: the first bytes of the file are, and file systems keep the order of changes to
  // one file.
  file_calls().setxattr(path.c_str(), full_name.c_str(), value->bytes().data(), value->size());
} catch (...) {
  // Best effort: a download must not fail over an attribute.
}

std::optional<std::string> extended_attribute(const URL& url, std::string_view name) {
  const auto path = url.path();
  const auto full_name = attribute_name(name);
  std::string value(256, '\0');
  for (;;) {
    const auto size = ::getxattr(path.c_str(), full_name.c_str(), value.data(), value.size());
    if (size >= 0) {
      value.resize(static_cast<std::size_t>(size));
      return value;
    }
    if (errno != ERANGE)
      return std::nullopt;
    const auto needed = ::getxattr(path.c_str(), full_name.c_str(), nullptr, 0);
    if (needed < 0)
      return std::nullopt;
    value.resize(static_cast<std::size_t>(needed));
  }
}

} // namespace ravelin::platform
