#include "app/options.h"

#include "app/naming.h"
#include "app/output.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <map>
#include <sstream>

namespace ravelin::app {
namespace {

const std::map<std::string, OnConflict> policies = {{"resume", OnConflict::resume},
                                                    {"replace", OnConflict::replace},
                                                    {"keep_both", OnConflict::keep_both},
                                                    {"stop", OnConflict::stop}};

/// Option values that need more than a conversion before they are options.
struct Raw {
  std::string policy = "resume";
  std::vector<std::string> headers;
  std::string rate;
  std::string sha256;
  std::string proxy, ca_file, user_agent, output, directory, input;
  double timeout = 0;
  bool no_split = false;
  bool no_safeguards = false;
};

/// An empty variable in a script is a slip, and must not quietly leave the option out.
std::string not_empty(const std::string& text) {
  return text.empty() ? "is empty" : std::string();
}

void add_get_options(CLI::App& get, GetOptions& options, Raw& raw) {
  get.add_option("URL", options.links, "Links to download (http or https)");
  get.add_option("-o,--output", raw.output, "Write to this file instead of one named by the link")
      ->check(not_empty);
  get.add_option("-d,--dir", raw.directory, "Put files into this directory")->check(not_empty);
  get.add_flag("-J,--remote-header-name", options.remote_names,
               "Ask the server for the file's name; done anyway where the link has none");
  get.add_option("-i,--input-file", raw.input, "Read links from a file, one a line; - is stdin")
      ->check(not_empty);
  get.add_option("-c,--on-conflict", raw.policy,
                 "When the file is there already: resume (default), replace, keep_both or stop")
      ->check(CLI::IsMember(policies));
  get.add_flag("--no-split", raw.no_split, "Use one connection instead of five");
  get.add_option("-j,--max-downloads", options.max_downloads,
                 "How many files to download at once (default 5)")
      ->check(CLI::Range(std::int64_t{1}, std::int64_t{1000}));
  get.add_option("--sha256", raw.sha256, "Compare the finished file with this checksum")
      ->check(not_empty);
  get.add_option("--retry", options.retries,
                 "Try this often again after a lost connection, a time-out or a busy server, "
                 "counted anew when bytes arrive (default 5, 0 never)")
      ->check(CLI::Range(0, 1'000'000));
  get.add_option("-H,--header", raw.headers, "Send this header field: 'Name: value'")
      ->take_all()
      ->expected(1)
      ->allow_extra_args(false);
  get.add_option("--limit-rate", raw.rate, "Most bytes a second for all files, such as 500k or 2M")
      ->check(not_empty);
  get.add_option("-x,--proxy", raw.proxy, "Use this proxy, [scheme://]host:port");
  get.add_option("--cacert", raw.ca_file, "Trust the certificates in this PEM file");
  get.add_option("-A,--user-agent", raw.user_agent, "Send this as the user agent");
  get.add_option("--timeout", raw.timeout, "Give up on a silent server after these seconds (60)")
      ->check(CLI::Range(0.001, 86400.0))
      ->check([](const std::string& text) {
        return std::isnan(std::strtod(text.c_str(), nullptr)) ? "is no number" : std::string();
      });
  get.add_flag("--no-safeguards", raw.no_safeguards,
               "Take every answer as it comes: error pages, wrong ranges, changed content");
  get.add_flag("-q,--quiet", options.quiet, "Print errors only");
  get.add_flag("--events", options.events, "Print every event as a line of JSON");
}

std::string environment(const char* name) {
  const auto* const value = std::getenv(name);
  return value ? value : "";
}

void set_safeguards(Defaults& values, bool on) {
  values.reject_http_errors = on;
  values.require_exact_ranges = on;
  values.reject_changed_content = on;
}

void add_headers(Defaults& values, const std::vector<std::string>& headers) {
  for (const auto& header : headers) {
    const auto colon = header.find(':');
    const bool broken = colon == 0 || colon == std::string::npos ||
                        header.find_first_of("\r\n") != std::string::npos;
    if (broken)
      throw CLI::ValidationError("--header", "'" + header + "' is not of the form 'Name: value'");
    const auto begin = std::min(header.find_first_not_of(" \t", colon + 1), header.size());
    values.headers.emplace_back(header.substr(0, colon), header.substr(begin));
  }
}

void read_links(const std::string& from, std::vector<std::string>& links) {
  std::ifstream file;
  if (from != "-") {
    file.open(from);
    if (!file)
      throw CLI::FileError::Missing(from);
  }
  auto& lines = from == "-" ? std::cin : file;
  for (std::string line; std::getline(lines, line);) {
    if (line.starts_with("\xEF\xBB\xBF")) // a byte order mark
      line.erase(0, 3);
    const auto begin = line.find_first_not_of(" \t\r");
    if (begin == std::string::npos || line[begin] == '#')
      continue;
    links.push_back(line.substr(begin, line.find_last_not_of(" \t\r") - begin + 1));
  }
}

std::string checked_sha256(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  const bool well_formed =
      text.size() == 64 && text.find_first_not_of("0123456789abcdef") == std::string::npos;
  if (!well_formed)
    throw CLI::ValidationError("--sha256", "a SHA-256 checksum has 64 hexadecimal digits");
  return text;
}

void check_combination(const GetOptions& options, const std::string& input) {
  if (options.links.empty() && !input.empty())
    throw CLI::ValidationError("--input-file", "there is no link in '" + input + "'");
  if (options.links.empty())
    throw CLI::RequiredError("URL");
  if (options.links.size() > 1 && options.output)
    throw CLI::ValidationError("--output", "several links cannot go to one file; use --dir");
  if (options.links.size() > 1 && options.sha256)
    throw CLI::ValidationError("--sha256", "one checksum cannot be that of several links");
}

void take_raw(GetOptions& options, const Raw& raw) {
  auto& values = options.defaults;
  options.on_conflict = policies.at(raw.policy);
  options.split = !raw.no_split;
  options.directory = raw.directory;
  if (!raw.output.empty())
    options.output = raw.output;
  if (!raw.sha256.empty())
    options.sha256 = checked_sha256(raw.sha256);
  if (!raw.input.empty())
    read_links(raw.input, options.links);
  std::ranges::transform(options.links, options.links.begin(), with_scheme);
  set_safeguards(values, !raw.no_safeguards);
  add_headers(values, raw.headers);
  if (!raw.rate.empty()) {
    values.rate_limit = parse_size(raw.rate);
    if (!values.rate_limit || *values.rate_limit <= 0)
      throw CLI::ValidationError("--limit-rate", "'" + raw.rate + "' is not a rate such as 500k");
  }
  if (!raw.proxy.empty())
    values.proxy = raw.proxy;
  if (!raw.user_agent.empty())
    values.user_agent = raw.user_agent;
  if (raw.timeout > 0)
    values.idle_timeout = std::chrono::milliseconds(static_cast<std::int64_t>(raw.timeout * 1000));
  for (const auto& file :
       {raw.ca_file, environment("CURL_CA_BUNDLE"), environment("SSL_CERT_FILE")})
    if (!file.empty() && !values.ca_bundle)
      values.ca_bundle = file;
}

int print_parse_error(const CLI::App& parser, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) { // help and version
    std::ostringstream text;
    parser.exit(error, text);
    auto line = text.str();
    line.erase(line.find_last_not_of('\n') + 1);
    print_line(line);
    return all_was_printed() ? all_well : failed;
  }
  tell(fmt::format("ravelin: {}\nTry 'ravelin --help'.\n", error.what()));
  return wrong_usage;
}

} // namespace

std::optional<std::int64_t> parse_size(const std::string& text) {
  char* rest = nullptr;
  const double number = std::strtod(text.c_str(), &rest);
  std::string unit(rest);
  if (rest == text.c_str() || unit.size() > 2)
    return std::nullopt;
  if (unit.size() == 2 && (unit.back() == 'B' || unit.back() == 'b'))
    unit.pop_back();
  constexpr double kilo = 1024.0;
  double factor = 1;
  if (unit == "k" || unit == "K")
    factor = kilo;
  else if (unit == "m" || unit == "M")
    factor = kilo * kilo;
  else if (unit == "g" || unit == "G")
    factor = kilo * kilo * kilo;
  else if (!unit.empty())
    return std::nullopt;
  const double bytes = number * factor;
  if (!(bytes >= 0 && bytes < 9e18))
    return std::nullopt;
  return static_cast<std::int64_t>(bytes);
}

Parsed parse_arguments(int argc, const char* const* argv) {
  CLI::App parser("Downloads files over HTTP and HTTPS and continues where it left off.",
                  "ravelin");
  parser.set_version_flag("-V,--version", "ravelin " RAVELIN_VERSION);
  parser.require_subcommand(1);
  Options options;
  Raw raw;
  auto* const get = parser.add_subcommand("get", "Download links, or go on with them");
  auto* const status = parser.add_subcommand("status", "Say how far downloads have come");
  auto* const clear = parser.add_subcommand("clear", "Delete files and their resume records");
  add_get_options(*get, options.get_options, raw);
  std::vector<std::string> files;
  for (auto* const command : {status, clear})
    command->add_option("FILE", files, "The destination file")->required();
  try {
    parser.parse(argc, argv);
    if (get->parsed()) {
      options.command = Options::get;
      take_raw(options.get_options, raw);
      check_combination(options.get_options, raw.input);
    } else {
      options.command = status->parsed() ? Options::status : Options::clear;
      options.files.assign(files.begin(), files.end());
    }
  } catch (const CLI::ParseError& error) {
    return {options, print_parse_error(parser, error)};
  }
  return {options, std::nullopt};
}

} // namespace ravelin::app
