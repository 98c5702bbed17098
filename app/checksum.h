#pragma once

#include <ravelin/ravelin.hpp>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

struct evp_md_ctx_st; // of OpenSSL

namespace ravelin::app {

/// A checksum that a file should have.
struct Checksum {
  enum Algorithm { sha256, sha512 } algorithm = sha256;
  std::string digits; // hexadecimal, lower case

  /// "SHA-256".
  std::string name() const { return algorithm == sha256 ? "SHA-256" : "SHA-512"; }
};

/// Computes the checksum of bytes that come one after the other.
class Hasher {
public:
  explicit Hasher(Checksum::Algorithm algorithm);
  void add(std::string_view bytes);
  /// Once, at the end.
  Checksum finish();

private:
  Checksum::Algorithm algorithm_;
  std::unique_ptr<evp_md_ctx_st, void (*)(evp_md_ctx_st*)> context_;
};

/// A SHA-256 checksum of 64 hexadecimal digits. None if `text` is something else.
std::optional<Checksum> parse_sha256(std::string text);

/// The checksum of a file in a list as written by sha256sum or `sha256sum --tag`. A list of nothing
/// but one checksum is for every file.
std::optional<Checksum> find_checksum(const std::string& list, const std::string& file_name);

/// The checksum in the "Repr-Digest" or "Digest" field of a response. None without a usable one.
std::optional<Checksum> digest_of(const Response& response);

/// The checksum of a file. Throws `std::system_error` if it cannot be read.
Checksum checksum_of(const std::filesystem::path& file, Checksum::Algorithm algorithm);

} // namespace ravelin::app
