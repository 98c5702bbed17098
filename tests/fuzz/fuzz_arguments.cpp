#include "app/naming.h"
#include "app/options.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

// A command line, its words apart by zero bytes; what it makes of links and sizes must be usable.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  static const bool quiet = std::freopen("/dev/null", "w", stdout) != nullptr;
  if (!quiet)
    std::abort();
  std::vector<std::string> words{"ravelin", ""};
  for (std::size_t at = 0; at < size; ++at)
    if (bytes[at] == 0)
      words.emplace_back();
    else
      words.back() += static_cast<char>(bytes[at]);
  std::vector<const char*> arguments;
  for (const auto& word : words) {
    if (word.starts_with("-i") || word.starts_with("--input"))
      return 0; // would read files, or wait for the terminal
    arguments.push_back(word.c_str());
    const auto name = ravelin::app::name_from_link(word);
    if (name.empty() || name == "." || name == ".." || name.find('/') != name.npos ||
        name.size() > 200)
      std::abort();
    if (const auto number = ravelin::app::parse_size(word); number && *number < 0)
      std::abort();
    ravelin::app::printable(word);
  }
  const auto [options, status] =
      ravelin::app::parse_arguments(static_cast<int>(arguments.size()), arguments.data());
  if (!status && options.command == ravelin::app::Options::get && options.get_options.links.empty())
    std::abort();
  return 0;
}
