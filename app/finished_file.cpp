#include "app/finished_file.h"

#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/xattr.h>

namespace ravelin::app {

void set_remote_time(const std::filesystem::path& file, const Response& response) {
  const auto* const date = response.field("Last-Modified");
  std::tm parsed{};
  if (!date || !::strptime(date->c_str(), "%a, %d %b %Y %H:%M:%S GMT", &parsed))
    return;
  const timespec times[] = {{0, UTIME_OMIT}, {::timegm(&parsed), 0}}; // of access, of change
  ::utimensat(AT_FDCWD, file.c_str(), times, 0);
}

void note_origin_link(const std::filesystem::path& file, const std::string& link) {
  auto origin = link.substr(0, link.find_first_of("?#"));
  const auto host = origin.find("://") + 3;
  const auto credentials = origin.substr(0, origin.find('/', host)).rfind('@');
  if (credentials != std::string::npos)
    origin.erase(host, credentials + 1 - host);
  ::setxattr(file.c_str(), "user.xdg.origin.url", origin.data(), origin.size(), 0);
}

} // namespace ravelin::app
