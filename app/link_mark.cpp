#include "app/link_mark.h"

#include "app/sha256.h"
#include "platform/files/file_marks.h"

namespace ravelin::app {

using platform::Data;

namespace {

constexpr auto attribute = "ravelin_link";

} // namespace

std::string link_mark(const std::string& link) {
  return sha256_of_text(link);
}

std::optional<std::string> mark_of(const std::filesystem::path& file) {
  return platform::extended_attribute(URL::file(file), attribute);
}

void mark(const std::filesystem::path& file, const std::string& link) {
  platform::set_extended_attribute(URL::file(file), attribute, Data::copy_of(link_mark(link)));
}

} // namespace ravelin::app
