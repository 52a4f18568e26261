/* What the test plugins leave behind: one line per event, appended to the
 * file named by ORVANE_TEST_RECORD, or /tmp/record (the end-to-end tests'
 * file inside their sandbox). */
#ifndef ORVANE_TEST_PLUGINS_RECORD_H
#define ORVANE_TEST_PLUGINS_RECORD_H

#include <stdio.h>
#include <stdlib.h>

static inline const char* RecordPath(void) {
  const char* path = getenv("ORVANE_TEST_RECORD");
  return path != NULL ? path : "/tmp/record";
}

/* Appends @p line and a line end; 0 on success. */
static inline int Record(const char* line) {
  FILE* file = fopen(RecordPath(), "a");
  if (file == NULL) return 1;
  fprintf(file, "%s\n", line);
  return fclose(file) == 0 ? 0 : 1;
}

#endif
