#include "analyze/Verify.h"

#include <vector>

#include "analyze/VerifyCapture.h"
#include "analyze/VerifyCommandChecker.h"
#include "analyze/VerifyGraph.h"
#include "analyze/VerifyLoader.h"
#include "analyze/VerifyPaths.h"
#include "analyze/VerifyReport.h"

namespace orvane::analyze {

// Nothing here touches the host's process-wide graph, options or logs:
// each file loads into a registry of its own, the alerts and log lines of
// loading are collected instead of reaching the kernel log or syslog, and
// the command lines go to a dispatcher that starts nothing. The logging
// library is left shut down (see VerifyCapture).
int Verify(const VerifyOptions& options, std::ostream& out) {
  const VerifyPaths paths(options.root);
  VerifyReport report;
  VerifyCapture capture;

  const std::vector<VerifyPlugin> plugins = VerifyLoader(paths, capture, report).Load();
  VerifyGraph(plugins).Check(report);
  VerifyCommandChecker commandChecker(paths, report);
  for (const VerifyPlugin& plugin : plugins) {
    commandChecker.Check(plugin);
  }

  if (options.json) {
    report.WriteJson(options.root, out);
  } else {
    report.WriteText(options.root, out);
  }
  return report.HasFailures() ? 1 : 0;
}

}  // namespace orvane::analyze
