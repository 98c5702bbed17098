#include "app/options.h"

#include "app/naming.h"
#include "app/output.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <map>
#include <sstream>

namespace ravelin::app {
namespace {

const std::map<std::string, OnConflict> policies = {{"resume", OnConflict::resume},
                                                    {"replace", OnConflict::replace},
                                                    {"keep_both", OnConflict::keep_both},
                                                    {"stop", OnConflict::stop}};

/// Option values as given, before they are checked and converted.
struct RawOptions {
  std::string policy = "resume";
  std::vector<std::string> links;
  std::vector<std::string> headers;
  std::string rate;
  std::string min_split_size = "256k";
  std::string sha256;
  std::string sha256_from;
  std::string on_change = "restart";
  bool same_file = false;
  std::string proxy, ca_file, user_agent, output, directory, input;
  double timeout = 0;
  double events_interval = 0;
  double patience = 600;
  int retries = 5;
  int connections = 5;
  bool no_split = false;
  bool separate_header = false;
  bool no_safeguards = false;
};

/// Rejects an empty value, which may be an unset variable in a script.
std::string not_empty(const std::string& text) {
  return text.empty() ? "is empty" : std::string();
}

/// A range without a description, which would be added to the type in the help.
template <class T> CLI::Validator range(T min, T max) {
  return CLI::Range(min, max).description("");
}

/// Fits the help into 80 columns.
class HelpFormatter : public CLI::Formatter {
public:
  HelpFormatter() { column_width(28); }

  std::string make_option_desc(const CLI::Option* option) const override {
    const auto width = 80 - get_column_width();
    std::string text;
    std::size_t column = 0;
    std::istringstream words(option->get_description());
    for (std::string word; words >> word; column += word.size() + 1) {
      if (column + word.size() > width)
        column = 0;
      if (!text.empty())
        text += column == 0 ? '\n' : ' ';
      text += word;
    }
    return text;
  }
};

/// What to download, and where to.
void add_file_options(CLI::App& get, GetOptions& options, RawOptions& raw) {
  get.option_defaults()->group("Files");
  get.add_option("URL", raw.links, "Links to download (http or https)")
      ->type_name("")
      ->check(not_empty);
  get.add_option("-o,--output", raw.output,
                 "Write to this file (default: the name in the link), or - for standard output")
      ->type_name("FILE")
      ->check(not_empty);
  get.add_option("-d,--dir", raw.directory, "Save files in this directory, created if missing")
      ->type_name("DIR")
      ->check(not_empty);
  get.add_flag("-J,--remote-header-name", options.remote_names,
               "Ask the server for the file name; always done if the link has none");
  get.add_option("-i,--input-file", raw.input,
                 "Read links from this file, one per line (- for standard input); a SHA-256 "
                 "checksum may follow a link")
      ->type_name("FILE")
      ->check(not_empty);
  get.add_option("-c,--on-conflict", raw.policy,
                 "What to do if the file exists: resume (default), replace, keep_both or stop")
      ->type_name("POLICY")
      ->check(CLI::IsMember(policies).description(""));
  get.add_option("--on-change", raw.on_change,
                 "What to do if the content has changed since the download was begun: restart "
                 "(default) or fail")
      ->type_name("ACTION")
      ->check(CLI::IsMember({"restart", "fail"}).description(""));
  get.add_flag("--same-file", raw.same_file,
               "Continue an unfinished file from another link if the ends of what is there are the "
               "same");
  get.add_option("-j,--max-downloads", options.max_downloads,
                 "Maximum number of files to download at once (default 5)")
      ->type_name("N")
      ->check(range(std::int64_t{1}, std::int64_t{1000}));
  get.add_flag("-R,--remote-time", options.remote_time,
               "Set the file's time to the one that the server tells");
  get.add_flag("--xattr", options.note_origin,
               "Note the link in the file's extended attributes, without password and query");
}

void add_checksum_options(CLI::App& get, RawOptions& raw) {
  get.option_defaults()->group("Checksums");
  get.add_option("--sha256", raw.sha256, "Check the finished file against this checksum")
      ->type_name("HEX")
      ->check(not_empty);
  get.add_option("--sha256-from", raw.sha256_from,
                 "Look up the checksums of the files in this list, as written by sha256sum")
      ->type_name("FILE|URL")
      ->check(not_empty);
}

/// How to talk to servers.
void add_network_options(CLI::App& get, RawOptions& raw) {
  get.option_defaults()->group("Network");
  get.add_flag("--no-split", raw.no_split, "Use one connection instead of five");
  get.add_option("--connections", raw.connections,
                 "Maximum connections of one file, 1 to 5 (default 5); unlike --no-split, 1 can "
                 "resume")
      ->type_name("N")
      ->check(range(1, 5));
  get.add_option("--min-split-size", raw.min_split_size,
                 "Use one connection for files smaller than this (default 256k)")
      ->type_name("SIZE")
      ->check(not_empty);
  get.add_flag("--separate-header", raw.separate_header,
               "Ask for the header in a request of its own, and never download from its response");
  get.add_option("--retry", raw.retries,
                 "Retry up to N times after a lost connection, a timeout or a busy server; resets "
                 "on progress (default 5, 0 turns retries off)")
      ->type_name("N")
      ->check(range(0, 1'000'000));
  get.add_option("--patience", raw.patience,
                 "Once bytes have arrived, keep retrying for up to this many seconds without "
                 "progress while the server is silent or away (default 600)")
      ->type_name("SECONDS")
      ->check(range(0.0, 1e9));
  get.add_option("-H,--header", raw.headers, "Send this header field: 'Name: value'")
      ->type_name("FIELD")
      ->take_all()
      ->expected(1)
      ->allow_extra_args(false);
  get.add_option("--limit-rate", raw.rate,
                 "Maximum bytes per second for all files together, such as 500k or 2M")
      ->type_name("RATE")
      ->check(not_empty);
  get.add_option("-x,--proxy", raw.proxy, "Use this proxy, [scheme://]host:port")->type_name("URL");
  get.add_option("--cacert", raw.ca_file, "Trust the certificates in this PEM file")
      ->type_name("FILE");
  get.add_option("-A,--user-agent", raw.user_agent, "Send this as the user agent");
  get.add_option("--timeout", raw.timeout,
                 "Give up on a server that sends nothing for this many seconds (default 60)")
      ->type_name("SECONDS")
      ->check(range(0.001, 86400.0))
      ->check([](const std::string& text) {
        return std::isnan(std::strtod(text.c_str(), nullptr)) ? "is not a number" : std::string();
      });
  get.add_flag(
      "--no-safeguards", raw.no_safeguards,
      "Accept whatever the server sends: error pages, wrong ranges, changed content, wrong "
      "digests, and redirects from https to http");
}

void add_output_options(CLI::App& get, GetOptions& options, RawOptions& raw) {
  get.option_defaults()->group("Output");
  get.add_flag("-q,--quiet", options.quiet, "Print errors only");
  get.add_flag("--events", options.events, "Print every event as a line of JSON");
  get.add_option("--events-interval", raw.events_interval,
                 "Minimum seconds between two progress events of a file (default 0: print all)")
      ->type_name("SECONDS")
      ->check(range(0.0, 86400.0));
}

std::string environment(const char* name) {
  const auto* const value = std::getenv(name);
  return value ? value : "";
}

void add_headers(ravelin::Options& values, const std::vector<std::string>& headers) {
  for (const auto& header : headers) {
    const auto colon = header.find(':');
    const bool invalid = colon == 0 || colon == std::string::npos ||
                         header.find_first_of("\r\n") != std::string::npos;
    if (invalid)
      throw CLI::ValidationError("--header", "'" + header + "' is not of the form 'Name: value'");
    const auto begin = std::min(header.find_first_not_of(" \t", colon + 1), header.size());
    values.headers.emplace_back(header.substr(0, colon), header.substr(begin));
  }
}

void add_list(const std::string& from, std::vector<Link>& links) try {
  const auto list = read_link_list(from);
  links.insert(links.end(), list.begin(), list.end());
} catch (const std::exception& error) {
  throw CLI::ValidationError("--input-file", error.what());
}

void check_combination(const GetOptions& options, const RawOptions& raw) {
  if (options.links.empty())
    throw CLI::RequiredError("URL");
  if (options.links.size() > 1 && options.to_stdout)
    throw CLI::ValidationError("--output", "standard output takes the content of one link; run the "
                                           "command once for each");
  if (options.links.size() > 1 && !raw.output.empty())
    throw CLI::ValidationError("--output", "cannot write several links to one file; use --dir");
  if (options.links.size() > 1 && !raw.sha256.empty())
    throw CLI::ValidationError("--sha256", "cannot check several links against one checksum");
}

/// Options that ask for something that standard output cannot give. Others that have no effect on
/// it are ignored.
void check_output(const CLI::App& get) {
  for (const auto* const option : {"--on-conflict", "--on-change", "--same-file"})
    if (get.count(option) > 0)
      throw CLI::ValidationError(option, "is about files, and '--output -' makes none");
  if (get.count("--events") > 0)
    throw CLI::ValidationError("--events", "cannot share standard output with '--output -'");
}

void apply(const RawOptions& raw, GetOptions& options) {
  auto& values = options.download;
  values = Options::careful();
  values.reuse_header_response = !raw.separate_header;
  values.compare_new_link = raw.same_file;
  values.max_connections = raw.connections;
  values.min_split_size = parse_size(raw.min_split_size);
  if (!values.min_split_size)
    throw CLI::ValidationError("--min-split-size",
                               "'" + raw.min_split_size + "' is not a size such as 256k");
  if (raw.no_safeguards) {
    values.reject_http_errors = false;
    values.require_exact_ranges = false;
    values.reject_changed_content = false;
    values.refuse_tls_downgrade = false;
    options.check_digests = false;
  }
  options.on_conflict = policies.at(raw.policy);
  options.restart_changed = raw.on_change == "restart" && options.on_conflict == OnConflict::resume;
  options.split = !raw.no_split;
  options.events_interval =
      std::chrono::milliseconds(static_cast<std::int64_t>(raw.events_interval * 1000));
  options.directory = raw.directory;
  options.to_stdout = raw.output == "-";
  if (!raw.output.empty() && !options.to_stdout)
    options.output = raw.output;
  for (const auto& link : raw.links)
    options.links.push_back({complete_link(link), std::nullopt});
  if (!raw.input.empty())
    add_list(raw.input, options.links);
  values.retry =
      Retry{.max_attempts = raw.retries,
            .patience = std::chrono::milliseconds(static_cast<std::int64_t>(raw.patience * 1000)),
            .max_range_restarts = raw.retries > 0 ? 2 : 0};
  add_headers(values, raw.headers);
  if (!raw.rate.empty()) {
    options.rate_limit = parse_size(raw.rate);
    if (!options.rate_limit || *options.rate_limit <= 0)
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

void apply_checksums(const RawOptions& raw, GetOptions& options) {
  if (!raw.sha256_from.empty())
    options.checksum_list = raw.sha256_from;
  if (raw.sha256.empty())
    return;
  options.links.front().checksum = parse_sha256(raw.sha256);
  if (!options.links.front().checksum)
    throw CLI::ValidationError("--sha256", "a SHA-256 checksum has 64 hexadecimal digits");
}

int print_parse_error(const CLI::App& parser, const CLI::ParseError& error) {
  if (error.get_exit_code() == 0) { // help and version
    std::ostringstream text;
    parser.exit(error, text);
    auto line = text.str();
    line.erase(line.find_last_not_of('\n') + 1);
    for (auto gap = line.find("\n\n\n"); gap != std::string::npos; gap = line.find("\n\n\n"))
      line.erase(gap, 1);
    print_line(line);
    return output_succeeded() ? success : failed;
  }
  print_to_stderr(fmt::format("ravelin: {}\nTry 'ravelin --help'.\n", error.what()));
  return usage_error;
}

} // namespace

namespace {

constexpr const char* examples = R"(Examples:
  ravelin get https://example.com/image.iso
  ravelin get -d isos -j 2 -i links.txt
  ravelin get --sha256-from SHA256SUMS -R https://example.com/image.iso
  ravelin get -H 'Authorization: Bearer TOKEN' -o data.bin https://example.com/d

The same command resumes an interrupted download.)";

/// The arguments in the order that the parser wants: last first. A link or an option of `get` in
/// place of a command means `get`.
std::vector<std::string> reversed_arguments(int argc, const char* const* argv) {
  std::vector<std::string> arguments(argv + std::min(argc, 1), argv + argc);
  constexpr std::array own = {"-h", "--help", "-V", "--version", "get", "status", "clear"};
  if (!arguments.empty() && std::ranges::find(own, arguments.front()) == own.end()) {
    const auto& first = arguments.front();
    if (!first.starts_with('-') && first.find_first_of(".:/") == std::string::npos)
      throw CLI::ValidationError("'" + first + "' is not a command; use get, status or clear");
    arguments.insert(arguments.begin(), "get");
  }
  std::ranges::reverse(arguments);
  return arguments;
}

} // namespace

Parsed parse_arguments(int argc, const char* const* argv) {
  CLI::App parser("Downloads files over HTTP and HTTPS, and resumes them.", "ravelin");
  parser.formatter(std::make_shared<HelpFormatter>());
  parser.set_version_flag("-V,--version", "ravelin " RAVELIN_VERSION);
  parser.require_subcommand(1);
  Arguments options;
  RawOptions raw;
  auto* const get = parser.add_subcommand("get", "Download links, or resume downloads");
  auto* const status =
      parser.add_subcommand("status", "Show how much of each file has been downloaded");
  auto* const clear =
      parser.add_subcommand("clear", "Delete unfinished files and their resume records");
  get->footer(examples);
  add_file_options(*get, options.get_options, raw);
  add_checksum_options(*get, raw);
  add_network_options(*get, raw);
  add_output_options(*get, options.get_options, raw);
  std::vector<std::string> files;
  clear->add_flag("--complete", options.clear_complete,
                  "Also delete complete files and files of other programs");
  for (auto* const command : {status, clear})
    command->add_option("FILE", files, "Destination files")->type_name("")->required();
  try {
    parser.parse(reversed_arguments(argc, argv));
    if (get->parsed()) {
      options.command = Arguments::get;
      apply(raw, options.get_options);
      check_combination(options.get_options, raw);
      if (options.get_options.to_stdout)
        check_output(*get);
      apply_checksums(raw, options.get_options);
    } else {
      options.command = status->parsed() ? Arguments::status : Arguments::clear;
      options.files.assign(files.begin(), files.end());
    }
  } catch (const CLI::ParseError& error) {
    return {options, print_parse_error(parser, error)};
  }
  return {options, std::nullopt};
}

} // namespace ravelin::app
