// Drives the logging set-up and the alert paths of orvane from inside a
// sandbox, where /dev/kmsg and /dev/log are the test's:
//   logprobe log LEVEL TEXT      Log_Level at LEVEL
//   logprobe alert TEXT          the kernel-log alert logger
//   logprobe system-alert TEXT   a host system alert
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "ZelkCtl/SystemInfoImpl.h"
#include "log/Log.h"
#include "orvaner/Logging.h"

int main(int argc, char* argv[]) {
  orvane::InitLogging("orvane");
  std::string_view action = argc > 1 ? argv[1] : "";
  if (action == "log" && argc == 4) {
    Log_Level(std::atoi(argv[2]), "%s\n", argv[3]);
  } else if (action == "alert" && argc == 3) {
    orvane::LogAlert("%s", argv[2]);
  } else if (action == "system-alert" && argc == 3) {
    ZelkCtl::System::SystemInfoImpl().SetSystemAlert(argv[2]);
  } else {
    std::fprintf(stderr, "usage: logprobe log LEVEL TEXT | alert TEXT | system-alert TEXT\n");
    return 2;
  }
  return 0;
}
