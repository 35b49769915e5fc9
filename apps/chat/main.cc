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
#include "log_file.h"
#include "options.h"
#include "terminal.h"

namespace {

// The library's log lines, in the log file. The library keeps its handler
// until exit, and the handler keeps the file.
class FileLog final : public orvi::ILogHandler {
 public:
  explicit FileLog(std::shared_ptr<orvi_chat::LogFile> file) : file_(std::move(file)) {}
  void log(orvi::LogLevel, const std::string& line) override { file_->write("orvi", line); }

 private:
  const std::shared_ptr<orvi_chat::LogFile> file_;
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
  const auto log = std::make_shared<orvi_chat::LogFile>();
  orvi::ILogger::registerHandler(std::make_shared<FileLog>(log));
  orvi::ILogger::setLogLevel(options->verbose ? orvi::LogLevel::Debug : orvi::LogLevel::Info);
  return options->demo ? orvi_chat::runDemo(*options, terminal, log)
                       : orvi_chat::runInteractive(*options, terminal, log);
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
