/* Downloads one link to one file: download LINK FILE
 *
 * With ravelin installed: gcc download.c $(pkg-config --cflags --libs ravelin) -o download
 * If ravelin was built with -DBUILD_SHARED_LIBS=ON, this links libravelin.so; set LD_LIBRARY_PATH
 * if the loader does not find it. */

#include <ravelin/ravelin.h>

#include <stdio.h>

static void on_event(void* user, const ravelin_event* event) {
  int* exit_status = user;
  switch (event->status) {
  case ravelin_status_downloading:
    printf("\r%lld bytes", (long long)event->progress.received_bytes);
    if (event->progress.fraction >= 0)
      printf("  %3.0f %%", 100 * event->progress.fraction);
    fflush(stdout);
    return;
  case ravelin_status_success:
    puts("\ndone");
    *exit_status = 0;
    break;
  case ravelin_status_error:
    fprintf(stderr, "\n%s (%s %d)\n", event->error_text, event->error_domain, event->error_code);
    break;
  case ravelin_status_cancelled:
    break;
  default:
    return;
  }
  ravelin_main_queue_stop(); /* it was the final event */
}

int main(int argc, char** argv) {
  int exit_status = 1;
  ravelin_operation* operation;
  ravelin_options* options;
  if (argc != 3) {
    fprintf(stderr, "usage: download LINK FILE\n");
    return 2;
  }
  options = ravelin_options_new();
  ravelin_options_set_careful(options); /* reject error pages and changed content */
  ravelin_set_default_options(options);
  ravelin_options_free(options);
  operation = ravelin_operation_new();
  ravelin_operation_resume(operation, argv[1], argv[2], true, ravelin_on_conflict_resume, on_event,
                           &exit_status);
  ravelin_main_queue_run();
  ravelin_operation_free(operation);
  return exit_status;
}
