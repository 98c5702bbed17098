#include "app/checksum_list.h"

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <system_error>

namespace ravelin::app {
namespace {

namespace fs = std::filesystem;

/// A directory that is deleted at the end.
class TemporaryDirectory {
public:
  TemporaryDirectory() : path_((fs::temp_directory_path() / "ravelin-XXXXXX").native()) {
    if (!::mkdtemp(path_.data()))
      throw std::system_error(errno, std::system_category(), "could not create '" + path_ + "'");
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

  fs::path path() const { return path_; }

private:
  std::string path_;
};

std::string read_file(const fs::path& file) {
  if (fs::is_directory(file))
    throw std::system_error(EISDIR, std::system_category());
  std::ifstream in(file);
  std::ostringstream text;
  if (!in || (in.peek() != std::ifstream::traits_type::eof() && !(text << in.rdbuf())))
    throw std::system_error(errno, std::system_category());
  return text.str();
}

void download(const std::string& link, const fs::path& file,
              const std::shared_ptr<RavelinOperation>& operation) {
  std::optional<std::string> error;
  operation->resume(URL(link), URL::file(file), false, OnConflict::replace,
                    [&](const Status& status) {
                      if (!status.is_final())
                        return;
                      if (const auto* const failed = status.get_if<Status::error>())
                        error = failed->custom_error.text();
                      if (status.holds<Status::cancelled>())
                        error = "interrupted";
                      MainQueue::stop();
                    });
  MainQueue::run();
  if (error)
    throw TextError(*error);
}

} // namespace

std::string read_checksum_list(const std::string& from,
                               const std::shared_ptr<RavelinOperation>& operation) {
  if (from.find("://") == std::string::npos)
    return read_file(from);
  const TemporaryDirectory directory;
  download(from, directory.path() / "list", operation);
  return read_file(directory.path() / "list");
}

} // namespace ravelin::app
