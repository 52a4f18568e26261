#include "orvaner/plugins/InteractiveConsole.h"

#include <cstring>

#include "log/Log.h"
#include "orvaner/plugins/ConsoleTerminal.h"
#include "process/Spawner.h"

namespace orvane {
namespace {

using terminal::Colour;
using terminal::WriteColour;

/// One choice of the prompt, in the order the prompt shows them.
struct Choice {
  char key;
  const char* label;
  Colour colour;
};

constexpr Choice kChoices[] = {
    {InteractiveConsole::kContinue, "(c)ontinue", Colour::kMagenta},
    {InteractiveConsole::kExecute, "(e)xecute", Colour::kGreen},
    {InteractiveConsole::kTroubleshoot, "(t)roubleshoot", Colour::kYellow},
    {InteractiveConsole::kSkip, "(s)kip", Colour::kRed},
};

bool IsChoice(char key) {
  for (const Choice& choice : kChoices) {
    if (choice.key == key) return true;
  }
  return false;
}

/// The four choices separated by tabs, each followed by a reset; @p colourOf
/// gives each its colour.
template <typename ColourOf>
void WriteChoices(std::FILE* output, ColourOf colourOf) {
  bool first = true;
  for (const Choice& choice : kChoices) {
    if (!first) std::fputc('\t', output);
    first = false;
    WriteColour(output, colourOf(choice));
    std::fputs(choice.label, output);
    WriteColour(output, Colour::kReset);
  }
}

InteractiveConsole*& ReplacementConsole() {
  static InteractiveConsole* console = nullptr;
  return console;
}

// The console's message for a step of the shell's child that failed,
// logged in the child just before it exits.
void ReportShellFailure(process::SessionStep step, int error) {
  if (step == process::SessionStep::NewSession) {
    Log_Level(LOG_LEVEL_ERROR, "unable to create new session: %s\n", std::strerror(error));
  } else {
    Log_Level(LOG_LEVEL_ERROR, "unable to exec shell: %s\n", std::strerror(error));
  }
}

}  // namespace

char InteractiveConsole::Prompt(const std::string& pluginName) {
  std::FILE* output = devices_.output;
  Write("current plugin: ");
  WriteColour(output, Colour::kCyan);
  Write(pluginName.c_str());
  Write("\n");
  Flush();
  // No reset after the name: its colour runs on until the first choice's.
  WriteChoices(output, [](const Choice& choice) { return choice.colour; });
  Flush();
  Write(terminal::kHideCursor);
  Flush();

  // Single keys without echo: canonical input and echo go off while the
  // prompt reads, and on again afterwards (whatever they were before).
  const termios attributes = terminal::EnterSingleKeyMode(devices_.input);
  const char key = ReadChoice();
  terminal::LeaveSingleKeyMode(devices_.input, attributes);
  Write(terminal::kShowCursor);
  Flush();
  return key;
}

void InteractiveConsole::ShowChoice(char key) {
  Write("\r");
  WriteChoices(devices_.output, [key](const Choice& choice) {
    return choice.key == key ? choice.colour : Colour::kWhite;
  });
  Write("\n");
  Flush();
}

void InteractiveConsole::SwitchConsole(int terminal) {
  orvane::terminal::ActivateVirtualTerminal(devices_.console, terminal);
}

void InteractiveConsole::RunTroubleshootingShell() {
  Flush();
  // The shell runs on the console's own streams; they are the standard
  // ones except when a test gave others.
  process::ShellSession session;
  session.shell = devices_.shell;
  session.input = devices_.input;
  session.output = ::fileno(devices_.output);
  session.childFailure = &ReportShellFailure;
  const process::RunResult shell = process::Spawner::Instance().RunShellSession(session);
  if (!shell.Started()) {
    Log_Level(LOG_LEVEL_ERROR, "failed to fork - unable to launch troubleshooting shell: %s\n",
              std::strerror(shell.startError));
    return;
  }
  Write(terminal::kEraseLine);
  Flush();
}

void InteractiveConsole::Write(const char* text) { std::fputs(text, devices_.output); }

void InteractiveConsole::Flush() { std::fflush(devices_.output); }

char InteractiveConsole::ReadChoice() {
  for (;;) {
    const char key = terminal::ReadLowerCaseKey(devices_.input);
    if (IsChoice(key)) return key;
  }
}

InteractiveConsole& InteractiveConsole::Instance() {
  static InteractiveConsole standardConsole;
  InteractiveConsole* replacement = ReplacementConsole();
  return replacement != nullptr ? *replacement : standardConsole;
}

void ReplaceActivationConsole(InteractiveConsole* console) { ReplacementConsole() = console; }

}  // namespace orvane
