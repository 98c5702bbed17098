#pragma once

#include "platform/data.h"
#include "platform/files/extended_attributes.h"
#include "platform/files/hidden_list.h"
#include "ravelin/url.h"

#include <optional>
#include <string>
#include <utility>

namespace ravelin::bramblekit {

/// The UTF-8 bytes of `text`.
inline std::optional<platform::Data> to_data(std::string_view text) {
  return platform::Data::copy_of(text);
}

/// Sets extended attributes of a file: `ext_attr(url)["name"] = bytes`; no value removes one.
/// Failures are not reported.
class ExtAttr {
public:
  explicit ExtAttr(URL url) : url_(std::move(url)) {}

  class Entry {
  public:
    Entry(const URL& url, std::string key) : url_(url), key_(std::move(key)) {}
    void operator=(const std::optional<platform::Data>& value) {
      platform::set_extended_attribute(url_, key_, value);
    }

  private:
    const URL& url_;
    std::string key_;
  };
  Entry operator[](std::string key) const { return {url_, std::move(key)}; }

private:
  URL url_;
};

inline ExtAttr ext_attr(const URL& url) {
  return ExtAttr(url);
}

/// Hides the file in file managers, or shows it again. Failures are not reported; false: call it
/// again off the main thread, which must not wait.
inline bool set_is_hidden(const URL& url, bool is_hidden) {
  return platform::set_hidden(url, is_hidden);
}

} // namespace ravelin::bramblekit
