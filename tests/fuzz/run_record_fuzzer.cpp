// A run record, read by orvane-analyze as it reads /var/log/orvane/last.jsonl
// or a record given with -r, then every command run on what was read: a
// record the reader takes must never crash a command, and every JSON a
// command writes must parse.
#include <boost/json/parse.hpp>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <sstream>
#include <string>
#include <string_view>

#include "FuzzSupport.h"
#include "analyze/Aggregate.h"
#include "analyze/Blame.h"
#include "analyze/Compare.h"
#include "analyze/CriticalChain.h"
#include "analyze/Plot.h"
#include "analyze/RecordError.h"
#include "analyze/RecordReader.h"
#include "analyze/Status.h"
#include "analyze/Trace.h"

namespace {

namespace analyze = orvane::analyze;

// What a command wrote as JSON parses as JSON.
void CheckJson(const std::ostringstream& out, const char* command) {
  boost::system::error_code error;
  boost::json::parse(out.str(), error);
  fuzzing::Check(!error, command);
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  fuzzing::SilenceLogging();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  analyze::Record record;
  try {
    record = analyze::ParseRecord(text, "fuzz.jsonl");
  } catch (const analyze::RecordError&) {
    // Not a record that can be used: one line and status 1.
    return 0;
  }

  for (const bool json : {false, true}) {
    std::ostringstream blame, chain, plot, status, compare, aggregate;
    analyze::WriteBlame(record, json, blame);
    analyze::WriteCriticalChain(record, {}, json, chain);
    analyze::WritePlot(record, json, plot);
    // An hour after the run's start: a live record counts its running
    // plugins up to then.
    constexpr std::int64_t kHour = 3'600'000'000LL;
    const std::int64_t start = record.header.startMicroseconds;
    const std::int64_t now =
        start > std::numeric_limits<std::int64_t>::max() - kHour ? start : start + kHour;
    analyze::WriteStatus(record, now, json, status);
    analyze::WriteCompare(record, record, 0, json, compare);
    analyze::Aggregation aggregation;
    aggregation.Add(record);
    aggregation.Add(record);
    analyze::WriteAggregate(aggregation, json, aggregate);
    if (json) {
      CheckJson(blame, "blame writes JSON");
      CheckJson(chain, "critical-chain writes JSON");
      CheckJson(plot, "plot writes JSON");
      CheckJson(status, "status writes JSON");
      CheckJson(compare, "compare writes JSON");
      CheckJson(aggregate, "aggregate writes JSON");
    }
  }
  std::ostringstream trace;
  analyze::WriteTrace(record, trace);
  CheckJson(trace, "trace writes JSON");
  return 0;
}
