/* Its start writes one line to standard output and one to standard error,
 * and copies one line of standard input into the record: the helper shares
 * the orchestrator's descriptors. */
#include <orvane/plugin.h>
#include <stdio.h>
#include <string.h>

#include "Record.h"

static int Start(void) {
  char line[128] = "";
  if (fgets(line, sizeof line, stdin) != NULL) {
    line[strcspn(line, "\n")] = '\0';
  }
  fputs("talker on standard output\n", stdout);
  fputs("talker on standard error\n", stderr);
  fflush(stdout);
  char recorded[160];
  snprintf(recorded, sizeof recorded, "talker read '%s'", line);
  return Record(recorded);
}

const struct orvane_plugin_metadata metadata = {.api_version = ORVANE_PLUGIN_API_VERSION};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
