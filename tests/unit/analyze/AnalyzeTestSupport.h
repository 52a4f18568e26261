// Records written by hand for the orvane-analyze tests, and the helpers
// that read them. The example run: storage and network start at once on
// two workers; network releases firewall, which fails; sshd waits for
// storage and firewall; debugshell waits for nothing but a free worker.
#pragma once

#include <string>

#include "analyze/Record.h"
#include "analyze/RecordReader.h"

namespace orvane::analyze::testing {

inline const std::string kHeaderLine =
    R"({"type":"header","schema":1,"mode":"plain","method":"","options":{"parallel":true,)"
    R"("threads":2,"randomize":false,"seed":1764000000,"interactive":false,"trace":false,)"
    R"("pluginFlags":[],"disabledPlugins":[],"pluginDirectory":"/usr/libexec/orvane/plugins"},)"
    R"("start":"2026-11-24T15:14:00.123456Z","startMicroseconds":1764000000123456,)"
    R"("host":"host1","pid":1234,"version":"0.1.0"})"
    "\n";

/// The graph of the example run: five plugins, a refused file, three barriers.
inline const std::string kExampleGraph =
    R"({"type":"plugin","id":0,"name":"storage","kind":"json","file":"/p/storage.json","requires":[],"provides":[10],"apiVersion":3,"runOnceKey":null,"alreadyRun":false}
{"type":"plugin","id":1,"name":"network","kind":"native","file":"/p/network.so","requires":[],"provides":[11],"apiVersion":4,"runOnceKey":null,"alreadyRun":false}
{"type":"refused","file":"broken.json","name":"broken","reason":"plugin `/p/broken.json' is invalid: Unsupported API version"}
{"type":"plugin","id":2,"name":"firewall","kind":"json","file":"/p/firewall.json","requires":[11],"provides":[12],"apiVersion":3,"runOnceKey":"firewall1.0","alreadyRun":false}
{"type":"plugin","id":3,"name":"sshd","kind":"daemon","file":"/etc/init.d/sshd","requires":[10,12],"provides":[],"apiVersion":-1,"runOnceKey":null,"alreadyRun":false}
{"type":"plugin","id":4,"name":"debugshell","kind":"debug","file":"/etc/debug.conf","requires":[],"provides":[],"apiVersion":-1,"runOnceKey":null,"alreadyRun":false}
{"type":"barrier","id":10,"name":"disks","kind":"init","requires":[0],"provides":[3]}
{"type":"barrier","id":11,"name":"net","kind":"init","requires":[1],"provides":[2]}
{"type":"barrier","id":12,"name":"fw","kind":"init","requires":[2],"provides":[3]}
)";

/// The events of the example run up to firewall's start: what a live
/// record of it holds while firewall runs.
inline const std::string kExampleEventsUntilFirewallStarts =
    R"({"type":"ready","t":100,"worker":-1,"id":0}
{"type":"ready","t":100,"worker":-1,"id":1}
{"type":"ready","t":100,"worker":-1,"id":4}
{"type":"start","t":150,"worker":0,"id":0}
{"type":"start","t":160,"worker":1,"id":1}
{"type":"finish","t":5150,"worker":0,"id":0,"outcome":"activated"}
{"type":"ready","t":5160,"worker":0,"id":10}
{"type":"barrier-done","t":5170,"worker":0,"id":10}
{"type":"start","t":5200,"worker":0,"id":4}
{"type":"finish","t":5700,"worker":0,"id":4,"outcome":"activated"}
{"type":"finish","t":12160,"worker":1,"id":1,"outcome":"activated"}
{"type":"ready","t":12170,"worker":1,"id":11}
{"type":"barrier-done","t":12180,"worker":1,"id":11}
{"type":"ready","t":12190,"worker":1,"id":2}
{"type":"start","t":12200,"worker":1,"id":2}
)";

inline const std::string kExampleEventsToTheEnd =
    R"({"type":"finish","t":20200,"worker":1,"id":2,"outcome":"failed","reason":"firewall->start() failed: error while executing the cli"}
{"type":"ready","t":20210,"worker":1,"id":12}
{"type":"barrier-done","t":20220,"worker":1,"id":12}
{"type":"ready","t":20230,"worker":1,"id":3}
{"type":"start","t":20500,"worker":0,"id":3}
{"type":"finish","t":23500,"worker":0,"id":3,"outcome":"activated"}
{"type":"end","t":24000,"status":0,"end":"2026-11-24T15:14:00.147456Z"}
)";

/// The whole example run, ended with status 0 after 24 ms.
inline const std::string kExampleRecord =
    kHeaderLine + kExampleGraph + kExampleEventsUntilFirewallStarts + kExampleEventsToTheEnd;

/// The example run while firewall runs: no end line.
inline const std::string kLiveRecord =
    kHeaderLine + kExampleGraph + kExampleEventsUntilFirewallStarts;

/// The wall clock of the example run's start (its header's startMicroseconds).
inline constexpr std::int64_t kExampleStart = 1764000000123456;

inline Record Parse(const std::string& text, const std::string& name = "example.jsonl") {
  return ParseRecord(text, name);
}

/// The index of the vertex named @p name (the first, if several are).
inline std::size_t IndexOf(const Record& record, const std::string& name) {
  for (std::size_t index = 0; index < record.vertices.size(); ++index) {
    if (record.vertices[index].name == name) {
      return index;
    }
  }
  throw std::runtime_error("no vertex named " + name);
}

}  // namespace orvane::analyze::testing
