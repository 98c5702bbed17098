#include "app/checksum.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <regex>
#include <sstream>
#include <system_error>
#include <vector>

namespace ravelin::app {
namespace {

using Bytes = std::vector<unsigned char>;

std::string hexadecimal(const Bytes& bytes) {
  std::string text;
  for (const auto byte : bytes)
    text += fmt::format("{:02x}", byte);
  return text;
}

/// None if the text is not in base64.
std::optional<Bytes> decode_base64(const std::string& text) {
  Bytes bytes(text.size());
  const auto* const from = reinterpret_cast<const unsigned char*>(text.data());
  const int size = EVP_DecodeBlock(bytes.data(), from, static_cast<int>(text.size()));
  if (size < 0 || text.empty())
    return std::nullopt;
  const auto padding = std::min<std::ptrdiff_t>(std::ranges::count(text, '='), 2);
  bytes.resize(static_cast<std::size_t>(size - padding)); // it decodes to zeros
  return bytes;
}

/// Finds "sha-256=:BASE64:" in "Repr-Digest", or "SHA-256=BASE64" in "Digest".
std::optional<Checksum> find_digest(const std::string& value, Checksum::Algorithm algorithm) {
  const bool is_short = algorithm == Checksum::sha256;
  const std::regex pattern(std::string("(?:^|[,\\s])sha-") + (is_short ? "256" : "512") +
                               "=(:?)([A-Za-z0-9+/]+=*)\\1(?=$|[,;\\s])",
                           std::regex::icase);
  std::smatch found;
  if (!std::regex_search(value, found, pattern))
    return std::nullopt;
  const auto bytes = decode_base64(found[2]);
  if (!bytes || bytes->size() != (is_short ? 32U : 64U))
    return std::nullopt;
  return Checksum{algorithm, hexadecimal(*bytes)};
}

} // namespace

Hasher::Hasher(Checksum::Algorithm algorithm)
    : algorithm_(algorithm), context_(EVP_MD_CTX_new(), EVP_MD_CTX_free) {
  EVP_DigestInit_ex(context_.get(), algorithm == Checksum::sha256 ? EVP_sha256() : EVP_sha512(),
                    nullptr);
}

void Hasher::add(std::string_view bytes) {
  EVP_DigestUpdate(context_.get(), bytes.data(), bytes.size());
}

Checksum Hasher::finish() {
  Bytes digest(EVP_MAX_MD_SIZE);
  unsigned size = 0;
  EVP_DigestFinal_ex(context_.get(), digest.data(), &size);
  digest.resize(size);
  return {algorithm_, hexadecimal(digest)};
}

std::optional<Checksum> parse_sha256(std::string text) {
  std::ranges::transform(text, text.begin(), [](unsigned char c) { return std::tolower(c); });
  if (text.size() != 64 || text.find_first_not_of("0123456789abcdef") != std::string::npos)
    return std::nullopt;
  return Checksum{Checksum::sha256, std::move(text)};
}

std::optional<Checksum> find_checksum(const std::string& list, const std::string& file_name) {
  static const std::regex plain("([0-9A-Fa-f]{64})(?:\\s[ *]?(?:.*/)?([^/]+))?"); // HEX  NAME
  static const std::regex tagged("SHA256 \\((?:.*/)?([^/]+)\\) = ([0-9A-Fa-f]{64})");
  std::optional<Checksum> nameless;
  std::istringstream lines(list);
  std::size_t checksums = 0;
  for (std::string line; std::getline(lines, line);) {
    line.erase(line.find_last_not_of("\r") + 1);
    std::smatch found;
    std::string name, digits;
    if (std::regex_match(line, found, plain)) {
      digits = found[1];
      name = found[2];
    } else if (std::regex_match(line, found, tagged)) {
      name = found[1];
      digits = found[2];
    } else {
      continue;
    }
    ++checksums;
    if (name == file_name)
      return parse_sha256(digits);
    if (name.empty())
      nameless = parse_sha256(digits);
  }
  return checksums == 1 ? nameless : std::nullopt;
}

std::optional<Checksum> digest_of(const Response& response) {
  for (const auto* const name : {"Repr-Digest", "Digest"})
    if (const auto* const value = response.field(name))
      for (const auto algorithm : {Checksum::sha512, Checksum::sha256})
        if (auto digest = find_digest(*value, algorithm))
          return digest;
  return std::nullopt;
}

Checksum checksum_of(const std::filesystem::path& file, Checksum::Algorithm algorithm) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> opened(std::fopen(file.c_str(), "rb"),
                                                               std::fclose);
  const auto fail = [&] {
    throw std::system_error(errno, std::system_category(),
                            "could not read '" + file.native() + "'");
  };
  if (!opened)
    fail();
  Hasher hasher(algorithm);
  std::vector<char> piece(256 * 1024);
  while (const auto got = std::fread(piece.data(), 1, piece.size(), opened.get()))
    hasher.add({piece.data(), got});
  if (std::ferror(opened.get()))
    fail();
  return hasher.finish();
}

} // namespace ravelin::app
