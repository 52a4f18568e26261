/* Its start dereferences a null pointer. It provides crash.done, so that
 * whatever requires it shows that the boot went on. */
#include <orvane/plugin.h>
#include <signal.h>

static int Start(void) {
  /* The kernel's default action, whatever handler the process installed
   * (a sanitizer's, say): the helper dies of the segmentation fault. */
  signal(SIGSEGV, SIG_DFL);
  volatile int* nowhere = NULL;
  *nowhere = 1;
  return 0;
}

static const char* const provided[] = {"crash.done", NULL};

const struct orvane_plugin_metadata metadata = {
    .api_version = ORVANE_PLUGIN_API_VERSION,
    .provided_barriers = provided,
};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
