// orvi-chat's interactive mode: reads lines from standard input on the main
// thread; a line starting with '/' is a command (/help lists them), any
// other line is a prompt for the open conversation.
#pragma once

#include <memory>

#include "log_file.h"
#include "options.h"
#include "terminal.h"

namespace orvi_chat {

// Runs until /quit or the end of input. Returns the process exit code.
int runInteractive(const ChatOptions& options, const std::shared_ptr<Terminal>& terminal,
                   const std::shared_ptr<LogFile>& log);

}  // namespace orvi_chat
