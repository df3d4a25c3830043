/* A host written in C against the installed library: one event to a closed port, kept as a
 * file for a later run.  c_host DATA_DIR */
#include <quorvel/quorvel.h>

#include <stdio.h>
#include <string.h>

static int failed(const char* what, quorvel_status status) {
  fprintf(stderr, "%s: %s\n", what, quorvel_status_text(status));
  return 1;
}

int main(int argc, char** argv) {
  quorvel_options options;
  quorvel_tracker* tracker = NULL;
  quorvel_status status;
  if (argc != 2)
    return 2;
  status = quorvel_check_version(QUORVEL_C_API_VERSION);
  if (status != QUORVEL_OK)
    return failed("version", status);
  quorvel_options_init(&options);
  options.data_directory = argv[1];
  options.data_directory_length = strlen(argv[1]);
  options.service_domain = "localhost:1";
  options.service_domain_length = strlen(options.service_domain);
  status = quorvel_tracker_create(&options, &tracker);
  if (status != QUORVEL_OK)
    return failed("create", status);
  quorvel_set_dev_key(tracker, "C-HOST-KEY", 10);
  quorvel_set_app_id(tracker, "123456789", 9);
  quorvel_track_event(tracker, "c_event", 7, "1", 1);
  status = quorvel_flush(tracker, 30000);
  quorvel_tracker_destroy(tracker);
  /* Nothing answers on localhost:1: the flush says that the send failed, and the report is
   * kept for the next start. */
  if (status != QUORVEL_ERROR_FAILED)
    return failed("flush", status);
  printf("Quorvel %s through the C API\n", quorvel_version());
  return 0;
}
