#include "app/sha256.h"

#include <fmt/format.h>
#include <openssl/evp.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <system_error>
#include <vector>

namespace ravelin::app {

namespace {

using Digest = std::array<unsigned char, EVP_MAX_MD_SIZE>;

std::string hexadecimal(const Digest& digest, unsigned size) {
  std::string text;
  for (unsigned i = 0; i < size; ++i)
    text += fmt::format("{:02x}", digest[i]);
  return text;
}

} // namespace

std::string sha256_of(const std::filesystem::path& file) {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> opened(std::fopen(file.c_str(), "rb"),
                                                               std::fclose);
  const auto fail = [&] {
    throw std::system_error(errno, std::system_category(),
                            "could not read '" + file.native() + "'");
  };
  if (!opened)
    fail();
  const std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> context(EVP_MD_CTX_new(),
                                                                        EVP_MD_CTX_free);
  EVP_DigestInit_ex(context.get(), EVP_sha256(), nullptr);
  std::vector<char> piece(256 * 1024);
  while (const auto got = std::fread(piece.data(), 1, piece.size(), opened.get()))
    EVP_DigestUpdate(context.get(), piece.data(), got);
  if (std::ferror(opened.get()))
    fail();
  Digest digest{};
  unsigned size = 0;
  EVP_DigestFinal_ex(context.get(), digest.data(), &size);
  return hexadecimal(digest, size);
}

} // namespace ravelin::app
