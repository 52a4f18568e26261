#include "analyze/VerifyReport.h"

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <iterator>
#include <ostream>
#include <sstream>
#include <utility>

#include "analyze/Formatting.h"
#include "orvane/FixedPaths.h"

namespace orvane::analyze {
namespace {

// A line of the text output fits this many columns when its words do.
constexpr std::size_t kLineWidth = 80;
// The body of a finding starts under the kind, after the severity column.
constexpr std::size_t kBodyIndent = 9;
constexpr std::size_t kDefinitionDirectoryCount = std::size(paths::kQorcliDirectories);

struct KindNames {
  VerifyKind kind;
  const char* word;   ///< in the JSON output
  const char* label;  ///< in the text output
};

constexpr KindNames kKindNames[] = {
    {VerifyKind::PluginDirectory, "plugin-directory", "plugin directory"},
    {VerifyKind::PluginFile, "plugin-file", "plugin file"},
    {VerifyKind::BootFlags, "boot-flags", "boot flags"},
    {VerifyKind::DebugConfiguration, "debug-configuration", "debug configuration"},
    {VerifyKind::MissingProvider, "missing-provider", "missing provider"},
    {VerifyKind::UnrequiredBarrier, "unrequired-barrier", "unrequired barrier"},
    {VerifyKind::Cycle, "cycle", "cycle"},
    {VerifyKind::CliDefinitions, "cli-definitions", "CLI definitions"},
    {VerifyKind::CommandLine, "command-line", "command line"},
};

const KindNames& NamesOf(VerifyKind kind) {
  for (const KindNames& names : kKindNames) {
    if (names.kind == kind) {
      return names;
    }
  }
  return kKindNames[0];  // every kind is in the table
}

bool IsAboutABarrier(const VerifyFinding& finding) {
  return finding.kind == VerifyKind::MissingProvider ||
         finding.kind == VerifyKind::UnrequiredBarrier;
}

std::string Plural(std::size_t count, const char* singular, const char* plural) {
  return std::to_string(count) + " " + (count == 1 ? singular : plural);
}

// What the finding is about, for its first line.
std::string Subject(const VerifyFinding& finding) {
  if (IsAboutABarrier(finding)) {
    return "barrier \"" + finding.barrier + "\"";
  }
  std::string subject = finding.file;
  if (!finding.position.empty()) {
    subject += (subject.empty() ? "" : " ") + finding.position;
  }
  return subject;
}

// Each line of @p text, broken between words so that it fits the width,
// after @p prefix on the first line and indented by @p indent on the
// others. A word longer than the room is left whole on a line of its own.
void WriteWrapped(const std::string& prefix, const std::string& text, std::size_t indent,
                  std::ostream& out) {
  std::string current = prefix;
  std::size_t currentWidth = DisplayWidth(prefix);
  bool empty = true;  // no word on the current line yet
  const auto endLine = [&] {
    out << current << '\n';
    current.assign(indent, ' ');
    currentWidth = indent;
    empty = true;
  };
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(TerminalText(line));
    for (std::string word; words >> word;) {
      const std::size_t wordWidth = DisplayWidth(word);
      if (!empty && currentWidth + 1 + wordWidth > kLineWidth) {
        endLine();
      }
      if (!empty) {
        current += ' ';
        ++currentWidth;
      }
      current += word;
      currentWidth += wordWidth;
      empty = false;
    }
    endLine();
  }
}

void WriteFinding(const VerifyFinding& finding, std::ostream& out) {
  const char* severity = finding.severity == VerifySeverity::Failure ? "failure" : "note";
  const std::string heading = PadRight(severity, kBodyIndent) + NamesOf(finding.kind).label;
  if (const std::string subject = Subject(finding); !subject.empty()) {
    WriteWrapped(heading + "  ", subject, kBodyIndent, out);
  } else {
    out << heading << '\n';
  }
  WriteWrapped(std::string(kBodyIndent, ' '), finding.text, kBodyIndent, out);
}

boost::json::array StringArray(const std::vector<std::string>& strings) {
  boost::json::array array;
  for (const std::string& text : strings) {
    array.emplace_back(ValidUtf8(text));
  }
  return array;
}

boost::json::object FindingObject(const VerifyFinding& finding) {
  boost::json::object object;
  object["kind"] = NamesOf(finding.kind).word;
  if (!finding.file.empty()) object["file"] = ValidUtf8(finding.file);
  if (!finding.position.empty()) object["position"] = finding.position;
  if (IsAboutABarrier(finding)) {
    object["barrier"] = ValidUtf8(finding.barrier);
    object[finding.kind == VerifyKind::MissingProvider ? "requiredBy" : "providedBy"] =
        StringArray(finding.plugins);
  }
  if (!finding.cycle.empty()) {
    object["cycle"] = StringArray(finding.cycle);
    object["knotSize"] = finding.knotSize;
  }
  object["text"] = ValidUtf8(finding.text);
  return object;
}

VerifyFinding Finding(VerifySeverity severity, VerifyKind kind, std::string file,
                      std::string text) {
  VerifyFinding finding;
  finding.severity = severity;
  finding.kind = kind;
  finding.file = std::move(file);
  finding.text = std::move(text);
  return finding;
}

}  // namespace

void VerifyReport::Add(VerifyFinding finding) { findings_.push_back(std::move(finding)); }

void VerifyReport::AddFailure(VerifyKind kind, std::string file, std::string text) {
  Add(Finding(VerifySeverity::Failure, kind, std::move(file), std::move(text)));
}

void VerifyReport::AddNote(VerifyKind kind, std::string file, std::string text) {
  Add(Finding(VerifySeverity::Note, kind, std::move(file), std::move(text)));
}

bool VerifyReport::HasFailures() const {
  return std::any_of(findings_.begin(), findings_.end(), [](const VerifyFinding& finding) {
    return finding.severity == VerifySeverity::Failure;
  });
}

void VerifyReport::WriteText(const std::string& root, std::ostream& out) const {
  const VerifyCounts& counts = counts_;
  out << "Plugin set under " << TerminalText(root) << '\n';
  out << "  " << Plural(counts.pluginFiles, "plugin file", "plugin files") << ": "
      << counts.jsonPlugins << " JSON, " << counts.nativePlugins << " native; "
      << Plural(counts.debugInjections, "debug injection", "debug injections") << "; "
      << Plural(counts.barriers, "barrier", "barriers") << '\n';
  out << "  " << Plural(counts.commandLines, "command line", "command lines")
      << " checked against CLI definitions in " << counts.definitionDirectories << " of "
      << kDefinitionDirectoryCount << " directories\n";

  std::size_t failures = 0;
  std::size_t notes = 0;
  for (VerifySeverity severity : {VerifySeverity::Failure, VerifySeverity::Note}) {
    for (const VerifyFinding& finding : findings_) {
      if (finding.severity != severity) continue;
      if (failures + notes == 0) out << '\n';
      ++(severity == VerifySeverity::Failure ? failures : notes);
      WriteFinding(finding, out);
    }
  }

  out << '\n';
  if (failures != 0) {
    out << Plural(failures, "failure", "failures") << ", " << Plural(notes, "note", "notes")
        << ": a boot with this plugin set would fail or hang.\n";
  } else if (notes != 0) {
    out << "No failures, " << Plural(notes, "note", "notes")
        << ": nothing would fail or hang at boot.\n";
  } else {
    out << "Nothing wrong: nothing would fail or hang at boot.\n";
  }
}

void VerifyReport::WriteJson(const std::string& root, std::ostream& out) const {
  boost::json::object checked;
  checked["pluginFiles"] = counts_.pluginFiles;
  checked["jsonPlugins"] = counts_.jsonPlugins;
  checked["nativePlugins"] = counts_.nativePlugins;
  checked["debugInjections"] = counts_.debugInjections;
  checked["barriers"] = counts_.barriers;
  checked["commandLines"] = counts_.commandLines;
  checked["definitionDirectories"] = counts_.definitionDirectories;

  boost::json::array failures;
  boost::json::array notes;
  for (const VerifyFinding& finding : findings_) {
    (finding.severity == VerifySeverity::Failure ? failures : notes)
        .push_back(FindingObject(finding));
  }

  boost::json::object report;
  report["root"] = ValidUtf8(root);
  report["status"] = HasFailures() ? 1 : 0;
  report["checked"] = std::move(checked);
  report["failures"] = std::move(failures);
  report["notes"] = std::move(notes);
  analyze::WriteJson(report, out);
}

}  // namespace orvane::analyze
