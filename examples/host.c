/* A host of libPelmora: prints each report the library sends for SECONDS seconds. */
#include <Pelmora.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

static int on_report(const char* report, int length) {
  printf("%.*s\n", length, report); /* runs on the library's poll thread */
  fflush(stdout);
  return 0;
}

int main(int argc, char** argv) {
  if (argc < 4) {
    fprintf(stderr, "usage: %s CONFIG_DIR RESOURCE_DIR LOG_DIR [SECONDS]\n", argv[0]);
    return 2;
  }
  int rc = InitPelmora(argv[1], argv[2], argv[3]);
  if (rc == 0) rc = StartAdbServer(false);
  if (rc == 0) rc = StartListenAndroidDevice(on_report);
  if (rc != 0) {
    fprintf(stderr, "Pelmora failed with code %d; see %s/Pelmora.log\n", rc, argv[3]);
    return 1;
  }
  sleep(argc > 4 ? (unsigned)atoi(argv[4]) : 10);
  StopListenAndroidDevice();
  sleep(2); /* a poll under way may still report; then the poll thread ends */
  return 0;
}
