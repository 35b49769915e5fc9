// orvi-chat --demo: a scripted conversation against an emulated service
// started inside the process, with no user input. It shows a streamed
// answer, a tool call answered by the host, a cancel mid-stream, and a
// restart that restores the conversation from the database, and it checks
// each of them. Every step waits on what the listener reports, with a
// bounded timeout; the first thing that does not happen ends the demo.
#pragma once

#include <memory>

#include "log_file.h"
#include "options.h"
#include "terminal.h"

namespace orvi_chat {

// Returns the process exit code: 0 when every check passed.
int runDemo(const ChatOptions& options, const std::shared_ptr<Terminal>& terminal,
            const std::shared_ptr<LogFile>& log);

}  // namespace orvi_chat
