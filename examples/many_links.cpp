// Downloads many links, a few at a time: many_links LIMIT DIRECTORY LINK...

#include <ravelin/defaults.h>
#include <ravelin/main_queue.h>
#include <ravelin/ravelin_operation.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>

using namespace ravelin;

namespace {

int downloading = 0; // everything here happens on the main thread: no lock
int failed = 0;

void end(const std::string& name, const std::string& how) {
  std::printf("%s: %s\n", name.c_str(), how.c_str());
  if (--downloading == 0)
    MainQueue::stop();
}

void start(const std::string& link, const std::filesystem::path& directory) {
  const std::filesystem::path name = link.substr(link.rfind('/') + 1);
  // The library holds the operation while it runs: nothing to keep.
  const auto operation = std::make_shared<RavelinOperation>();
  ++downloading;
  operation->resume(
      URL(link), URL::file(directory / name), true, OnConflict::resume,
      [name = name.string()](const Status& status) {
        status.visit(match{
            [&](const Status::pending&) { std::printf("%s: waits\n", name.c_str()); },
            [&](const Status::connecting&) { std::printf("%s: begins\n", name.c_str()); },
            [&](const Status::downloading& now) {
              if (now.progress.is_at_snap_point)
                std::printf("%s: %3.0f %%\n", name.c_str(),
                            100 * now.progress.prog_value.value_or(0));
            },
            [&](const Status::success&) { end(name, "done"); },
            [&](const Status::cancelled&) { end(name, "stopped"); },
            [&](const Status::error& e) {
              ++failed;
              end(name, e.custom_error.text());
            },
            [](const Status::renamed&) {},
            [](const Status::files_are_created&) {},
            [](const Status::started&) {},
            [](const Status::cancelling&) {},
        });
      });
}

} // namespace

int main(int argc, char** argv) {
  if (argc < 4) {
    std::fprintf(stderr, "usage: many_links LIMIT DIRECTORY LINK...\n");
    return 2;
  }
  Defaults values;
  values.reject_http_errors = true; // or the page of a 404 is kept as the file
  set_defaults(values);
  RavelinOperation::set_max_simultaneous_download_count(std::atoi(argv[1]));
  for (int i = 3; i < argc; ++i)
    start(argv[i], argv[2]);
  MainQueue::run();
  return failed == 0 ? 0 : 1;
}
