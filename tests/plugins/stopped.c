/* Its start asks to be traced by its parent (the process that waits for the
 * helper) and stops itself, so the parent's wait sees a stopped child: a
 * status that is neither an exit nor a death by signal. It records its
 * process id first, so that the test can end it. */
#include <orvane/plugin.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/ptrace.h>
#include <unistd.h>

#include "Record.h"

static int Start(void) {
  char line[32];
  snprintf(line, sizeof line, "%ld", (long)getpid());
  if (Record(line) != 0) return 1;
  /* The helper would turn a failing return into exit code 1; 7 says that
   * tracing was refused, which the test reports as a skip. */
  if (ptrace(PTRACE_TRACEME, 0, NULL, NULL) != 0) exit(7);
  raise(SIGSTOP);
  return 0;
}

const struct orvane_plugin_metadata metadata = {.api_version = ORVANE_PLUGIN_API_VERSION};
const orvane_plugin_operation operations[ORVANE_PLUGIN_OPERATION_COUNT] = {Start, NULL};
