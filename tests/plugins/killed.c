/* Its start kills its own process with SIGKILL. */
#include <orvane/plugin.h>
#include <signal.h>
#include <unistd.h>

static int Start(void) {
  kill(getpid(), SIGKILL);
  return 0;
}

const struct orvane_plugin_metadata metadata = {.api_version = ORVANE_PLUGIN_API_VERSION};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
