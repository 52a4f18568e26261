/// The operator's terminal during an interactive boot: the prompt before a
/// plugin runs, the redrawn choice, the switch between virtual terminals and
/// the troubleshooting shell.
#pragma once

#include <unistd.h>

#include <cstdio>
#include <string>

#include "orvane/FixedPaths.h"

namespace orvane {

/// Talks to the operator on one terminal. Nothing here throws: every
/// failure is logged, and the boot goes on. The operations are virtual so
/// that tests of the activation sequence can stand in for the operator.
class InteractiveConsole {
 public:
  /// The answers to the prompt.
  static constexpr char kContinue = 'c';
  static constexpr char kExecute = 'e';
  static constexpr char kTroubleshoot = 't';
  static constexpr char kSkip = 's';

  /// Where the console reads and writes and what it opens and runs. The
  /// defaults are the process's standard streams and the host's console
  /// device and shell.
  struct Devices {
    int input = STDIN_FILENO;
    std::FILE* output = stdout;
    const char* console = paths::kConsole;
    const char* shell = paths::kShell;
  };

  InteractiveConsole() = default;
  explicit InteractiveConsole(Devices devices) : devices_(devices) {}
  virtual ~InteractiveConsole() = default;
  InteractiveConsole(const InteractiveConsole&) = delete;
  InteractiveConsole& operator=(const InteractiveConsole&) = delete;

  /// The console Plugin::Execute prompts on: the process-wide one on the
  /// standard streams and the host's devices, unless a test replaced it.
  static InteractiveConsole& Instance();

  /// Shows the plugin's name and the four choices, then reads single keys
  /// (no echo, no line editing; upper case folds to lower) until one of
  /// c, e, s and t arrives, and returns it. Keys of no choice are ignored,
  /// and so is the end of input: the read simply repeats.
  virtual char Prompt(const std::string& pluginName);

  /// Redraws the prompt's line with only the chosen entry in its colour.
  virtual void ShowChoice(char key);

  /// Brings virtual terminal @p terminal to the front of the console. Does
  /// nothing when the console cannot be opened.
  virtual void SwitchConsole(int terminal);

  /// Runs the shell on the terminal as the leader of a session of its own
  /// and waits until it exits.
  virtual void RunTroubleshootingShell();

 private:
  void Write(const char* text);
  void Flush();
  char ReadChoice();

  Devices devices_;
};

/// Makes @p console the one InteractiveConsole::Instance returns; null goes
/// back to the standard one. The caller keeps @p console alive while it is
/// in use. For tests, which must not switch the machine's virtual
/// terminals.
void ReplaceActivationConsole(InteractiveConsole* console);

}  // namespace orvane
