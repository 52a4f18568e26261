#include "analyze/Main.h"

#include <chrono>
#include <iostream>
#include <new>

#include "analyze/Aggregate.h"
#include "analyze/Blame.h"
#include "analyze/CommandLine.h"
#include "analyze/Compare.h"
#include "analyze/CriticalChain.h"
#include "analyze/Plot.h"
#include "analyze/RecordError.h"
#include "analyze/RecordReader.h"
#include "analyze/Status.h"
#include "analyze/Trace.h"
#include "analyze/Verify.h"

namespace orvane::analyze {
namespace {

constexpr const char* kProgram = "orvane-analyze";

std::int64_t WallClockMicroseconds() {
  return std::chrono::duration_cast<std::chrono::microseconds>(
             std::chrono::system_clock::now().time_since_epoch())
      .count();
}

/// Runs the command of @p line; returns its exit status.
int RunCommand(const CommandLine& line, std::ostream& out) {
  const std::string& command = line.command;
  if (command == "verify") {
    VerifyOptions options;
    options.root = line.root;
    options.json = line.json;
    return Verify(options, out);
  }
  if (command == "compare") {
    const Record before = ReadRecord(line.operands[0]);
    const Record after = ReadRecord(line.operands[1]);
    WriteCompare(before, after, line.thresholdMicroseconds, line.json, out);
    return 0;
  }
  if (command == "aggregate") {
    Aggregation aggregation;
    for (const std::string& path : line.operands) {
      aggregation.Add(ReadRecord(path));
    }
    WriteAggregate(aggregation, line.json, out);
    return 0;
  }
  const Record record = ReadRecord(line.record);
  if (command == "blame") {
    WriteBlame(record, line.json, out);
  } else if (command == "critical-chain") {
    WriteCriticalChain(record, line.operands.empty() ? std::string() : line.operands[0], line.json,
                       out);
  } else if (command == "plot") {
    WritePlot(record, line.json, out);
  } else if (command == "trace") {
    WriteTrace(record, out);
  } else {
    WriteStatus(record, WallClockMicroseconds(), line.json, out);
  }
  return 0;
}

}  // namespace

int Run(const std::vector<std::string>& arguments, std::ostream& out, std::ostream& err) {
  CommandLine line;
  try {
    line = ParseCommandLine(arguments);
  } catch (const UsageError& error) {
    err << kProgram << ": " << error.what() << '\n' << kUsage;
    return 2;
  }
  if (line.help) {
    out << kUsage;
    return out.flush() ? 0 : 1;
  }
  int status = 0;
  try {
    status = RunCommand(line, out);
  } catch (const RecordError& error) {
    err << kProgram << ": " << error.what() << '\n';
    return 1;
  } catch (const std::bad_alloc&) {
    err << kProgram << ": out of memory\n";
    return 1;
  } catch (const std::exception& error) {
    err << kProgram << ": " << error.what() << '\n';
    return 1;
  }
  if (!out.flush()) {
    err << kProgram << ": cannot write the output\n";
    return 1;
  }
  return status;
}

int Main(int argc, char* argv[]) {
  std::ios::sync_with_stdio(false);
  const std::vector<std::string> arguments(argv + (argc > 0 ? 1 : 0), argv + argc);
  return Run(arguments, std::cout, std::cerr);
}

}  // namespace orvane::analyze
