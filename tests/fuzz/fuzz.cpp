#include "app/naming.h"
#include "app/options.h"
#include "platform/network/http_date.h"
#include "ravelin/response.h"
#include "ravelin/text.h"
#include "src/ResponseChecks.h"
#include "src/ResumeData.h"
#include "src/SuggestedName.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

// What must hold for any input, by the names of the fuzzers.

using namespace ravelin;

// A resume file of anybody's making is read or refused; what is read can be written again.
bool record(const std::string& text) {
  try {
    const auto written = ResumeData::instance(text)->to_json();
    return ResumeData::instance(written)->to_json() == written;
  } catch (const std::exception&) {
    return true; // refused
  }
}

// The lines of answers as they come from a server, their values and what the safeguards say.
bool http_head(const std::string& text) {
  platform::HeaderCollector head;
  for (std::size_t at = 0, next = 0; at < text.size(); at = next) {
    next = std::min(text.find('\n', at), text.size() - 1) + 1;
    head.add(std::string_view(text).substr(at, next - at));
  }
  const auto& fields = head.response().header_fields;
  for (const auto& [name, value] : fields) {
    const auto range = platform::parse_content_range(value).value_or(platform::ContentRange{});
    if (!platform::find_field(fields, name) || range.start < 0 || range.end < range.start ||
        (range.total && *range.total <= range.end))
      return false;
    platform::parse_retry_after(value);
  }
  const auto known = ContentVersion::of_whole(fields);
  return head.response().status == 206 ||
         ResponseChecks(Options::careful())
             .refuse_response(head.response(), platform::BytesRange{0, 9}, known);
}

// A command line, its words apart by zero bytes; what it makes of links and sizes must be usable.
bool arguments(const std::string& text) {
  static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
  std::vector<const char*> words{"ravelin"};
  for (std::size_t at = 0; at < text.size(); at += std::strlen(words.back()) + 1) {
    const std::string word = words.emplace_back(&text[at]);
    if (word.starts_with("-i") || word.starts_with("--input"))
      return true; // would read files, or wait for the terminal
    for (const auto& name : {suggested_name(URL("http://h/" + word)), name_from_disposition(word)})
      if (name && (safe_name(*name) != name || name->size() > 200 || printable(*name) != *name))
        return false;
    if (app::parse_size(word).value_or(0) < 0)
      return false;
  }
  const auto [options, status] = app::parse_arguments(static_cast<int>(words.size()), words.data());
  return quiet &&
         (status || options.command != app::Arguments::get || !options.get_options.links.empty());
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  if (!FUZZED({reinterpret_cast<const char*>(bytes), size}))
    std::abort();
  return 0;
}
