// orvi-chat: a terminal host for Orvi conversations, and with --demo a
// self-checking tour of the library against an emulated service.
#include <orvi/orvi.h>

#include <exception>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "commands.h"
#include "demo.h"
#include "options.h"
#include "terminal.h"

namespace {

// The library's log lines, on standard error with a prefix. The library
// keeps its handler until exit, so the terminal is held weakly: lines
// logged after main has returned are dropped.
class TerminalLog final : public orvi::ILogHandler {
 public:
  explicit TerminalLog(std::weak_ptr<orvi_chat::Terminal> terminal)
      : terminal_(std::move(terminal)) {}
  void log(orvi::LogLevel, const std::string& line) override {
    if (const auto terminal = terminal_.lock()) terminal->diagnostic("orvi: " + line);
  }

 private:
  const std::weak_ptr<orvi_chat::Terminal> terminal_;
};

int run(int argc, char** argv) {
  std::string error;
  const auto options =
      orvi_chat::parseArguments(std::vector<std::string>(argv + 1, argv + argc), &error);
  if (!options) {
    std::cerr << "orvi-chat: " << error << "\n\n" << orvi_chat::usageText();
    return 2;
  }
  if (options->help) {
    std::cout << orvi_chat::usageText();
    return 0;
  }
  const auto terminal = std::make_shared<orvi_chat::Terminal>(std::cout, std::cerr);
  // Warnings and errors only, unless --verbose: the levels below are the
  // library's narration of its own work.
  orvi::ILogger::setLogLevel(options->verbose ? orvi::LogLevel::Debug : orvi::LogLevel::Warn);
  orvi::ILogger::registerHandler(std::make_shared<TerminalLog>(terminal));
  return options->demo ? orvi_chat::runDemo(*options, terminal)
                       : orvi_chat::runInteractive(*options, terminal);
}

}  // namespace

int main(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::exception& e) {
    std::cerr << "orvi-chat: " << e.what() << '\n';
  } catch (...) {
    std::cerr << "orvi-chat: unexpected failure\n";
  }
  return 1;
}
