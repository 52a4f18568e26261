/* Its start waits until /tmp/released exists, for at most 10 seconds, and
 * records whether it was released or gave up. */
#include <orvane/plugin.h>
#include <time.h>
#include <unistd.h>

#include "Record.h"

static int Start(void) {
  const struct timespec tenth = {0, 100 * 1000 * 1000};
  for (int waited = 0; waited < 100 && access("/tmp/released", F_OK) != 0; ++waited) {
    nanosleep(&tenth, NULL);
  }
  return Record(access("/tmp/released", F_OK) == 0 ? "sleeper released" : "sleeper gave up");
}

const struct orvane_plugin_metadata metadata = {.api_version = ORVANE_PLUGIN_API_VERSION};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
