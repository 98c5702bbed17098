#include "app/naming.h"
#include "app/options.h"

#include <cstdio>
#include <cstdlib>

using namespace ravelin::app;

// A command line, its words apart by zero bytes; what it makes of links and sizes must be usable.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
  bool broken = !quiet;
  std::vector<std::string> words{"ravelin", ""};
  for (std::size_t at = 0; at < size; ++at)
    bytes[at] == 0 ? void(words.emplace_back())
                   : words.back().push_back(static_cast<char>(bytes[at]));
  std::vector<const char*> arguments;
  for (const auto& word : words) {
    if (word.starts_with("-i") || word.starts_with("--input"))
      return 0; // would read files, or wait for the terminal
    arguments.push_back(word.c_str());
    const auto name = name_from_link(word);
    broken |= usable_name(name) != name || name.size() > 200 || parse_size(word).value_or(0) < 0;
    printable(word);
  }
  const auto [options, status] = parse_arguments(static_cast<int>(words.size()), arguments.data());
  broken |= !status && options.command == Arguments::get && options.get_options.links.empty();
  return broken ? (std::abort(), 0) : 0;
}
