// Downloads one link to one file: ten_lines LINK FILE

#include <ravelin/defaults.h>
#include <ravelin/main_queue.h>
#include <ravelin/ravelin_operation.h>

#include <cstdio>

using namespace ravelin;

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: ten_lines LINK FILE\n");
    return 2;
  }
  Defaults values;
  values.reject_http_errors = true; // or the page of a 404 is kept as the file
  set_defaults(values);
  int exit_status = 1;
  const auto download = std::make_shared<RavelinOperation>();
  download->resume(URL(argv[1]), URL::file(argv[2]), true, OnConflict::resume,
                   [&](const Status& s) {
                     if (const auto* now = s.get_if<Status::downloading>())
                       std::printf("%3.0f %%\n", 100 * now->progress.prog_value.value_or(0));
                     else if (const auto* failed = s.get_if<Status::error>())
                       std::fprintf(stderr, "%s\n", failed->custom_error.text().c_str());
                     else if (s.holds<Status::success>())
                       exit_status = 0;
                     if (s.holds<Status::success>() || s.holds<Status::error>())
                       MainQueue::stop();
                   });
  MainQueue::run();
  return exit_status;
}
