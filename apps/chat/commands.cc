#include "commands.h"

#include <chrono>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "chat_host.h"

namespace orvi_chat {
namespace {

const int kDefaultPage = 10;

struct Command {
  const char* name;
  const char* arguments;
  const char* help;
  std::function<void(const std::string& argument)> run;
};

// "/history 5" -> 5; anything else (absent, not a positive number) -> the default.
int pageSize(const std::string& argument) {
  const int value = std::atoi(argument.c_str());
  return value > 0 ? value : kDefaultPage;
}

// "/open  abc " -> {"/open", "abc"}.
std::pair<std::string, std::string> splitCommand(const std::string& line) {
  const auto space = line.find(' ');
  if (space == std::string::npos) return {line, std::string()};
  const auto first = line.find_first_not_of(' ', space);
  if (first == std::string::npos) return {line.substr(0, space), std::string()};
  return {line.substr(0, space), line.substr(first, line.find_last_not_of(' ') - first + 1)};
}

class CommandLoop {
 public:
  CommandLoop(ChatHost& host, std::shared_ptr<Terminal> terminal)
      : host_(host), terminal_(std::move(terminal)), commands_(makeCommands()) {}

  // Handles one input line; false once the user asked to quit.
  bool handle(const std::string& line) {
    if (line.empty()) return true;
    if (line[0] != '/') {
      if (ChatSession* session = open()) session->prompt(line);
      return true;
    }
    const auto [name, argument] = splitCommand(line);
    if (name == "/quit" || name == "/exit") return false;
    for (const auto& command : commands_) {
      if (name == command.name) {
        command.run(argument);
        return true;
      }
    }
    terminal_->line("?", "unknown command " + name + "; /help lists them");
    return true;
  }

 private:
  ChatSession* open() {
    ChatSession* session = host_.session();
    if (!session) terminal_->line("?", "no open conversation; /new or /open ID");
    return session;
  }

  template <typename Action>
  std::function<void(const std::string&)> onSession(Action action) {
    return [this, action](const std::string& argument) {
      if (ChatSession* session = open()) action(*session, argument);
    };
  }

  std::vector<Command> makeCommands() {
    return {
        {"/help", "", "this list", [this](const std::string&) { help(); }},
        {"/new", "", "start a new conversation", [this](const std::string&) { host_.open(""); }},
        {"/open", "ID", "open a stored conversation and show its latest section",
         [this](const std::string& id) {
           if (id.empty()) return terminal_->line("?", "/open needs a conversation id (/list)");
           if (ChatSession* session = host_.open(id)) session->restore(true);
         }},
        {"/list", "[remote]", "conversations in the local history, or on the server",
         [this](const std::string& where) {
           if (where == "remote") {
             host_.listRemote(std::nullopt);
           } else {
             host_.listLocal();
           }
         }},
        {"/cancel", "", "stop the answer in progress",
         onSession([](ChatSession& session, const std::string&) { session.cancel(); })},
        {"/retry", "", "ask again for the answer of the turn in progress",
         onSession([](ChatSession& session, const std::string&) { session.retry(); })},
        {"/recover", "", "bring the latest section back from the server",
         onSession(
             [](ChatSession& session, const std::string&) { session.recoverLatestSection(); })},
        {"/history", "[N]", "local history, N messages a page; again for older ones",
         onSession(
             [](ChatSession& session, const std::string& n) { session.historyPage(pageSize(n)); })},
        {"/remote-history", "[N]", "the server's history, N sections a page; again for older ones",
         onSession([](ChatSession& session, const std::string& n) {
           session.remoteHistoryPage(pageSize(n));
         })},
        {"/delete", "ID [local]",
         "delete a closed conversation on the server and locally; "
         "with 'local', only here",
         [this](const std::string& argument) {
           const auto [id, where] = splitCommand(argument);
           if (id.empty()) return terminal_->line("?", "/delete needs a conversation id (/list)");
           if (!where.empty() && where != "local") {
             return terminal_->line("?", "/delete ID, or /delete ID local");
           }
           host_.remove(id, where == "local");
         }},
    };
  }

  void help() {
    for (const auto& command : commands_) {
      const std::string usage = std::string(command.name) + " " + command.arguments;
      terminal_->line("help", usage + std::string(usage.size() < 22 ? 22 - usage.size() : 1, ' ') +
                                  command.help);
    }
    terminal_->line("help",
                    "/quit                 leave (so does end of input); waits up to 5 s "
                    "for what was sent to be accepted");
    terminal_->line("help", "anything else is a prompt for the open conversation");
  }

  ChatHost& host_;
  const std::shared_ptr<Terminal> terminal_;
  const std::vector<Command> commands_;
};

}  // namespace

// How long /quit waits for the acknowledgements of what was sent.
constexpr std::chrono::seconds kQuitWait(5);

int runInteractive(const ChatOptions& options, const std::shared_ptr<Terminal>& terminal,
                   const std::shared_ptr<LogFile>& log) {
  HostSettings settings;
  settings.websocket_url = options.server_url;
  settings.http_url = options.http_url;
  settings.headers = options.headers;
  settings.cache_dir = options.cache_dir.empty() ? defaultCacheDir() : options.cache_dir;
  settings.log_path = options.log_file;
  settings.log = log;
  settings.ack_timeout_ms = options.ack_timeout_ms;
  settings.verbose = options.verbose;
  ChatHost host(std::move(settings), terminal);
  std::string error;
  if (!host.start(&error)) {
    terminal->diagnostic("orvi-chat: " + error);
    return 1;
  }
  if (!host.waitConnected(std::chrono::seconds(5))) {
    terminal->line("net", "not connected yet; prompts are refused until the connection is up");
  }
  ChatSession* session = host.open(options.conversation);
  if (session && !options.conversation.empty()) session->restore(true);
  if (!session && !options.conversation.empty()) host.open("");
  terminal->line("help", "type a prompt, or /help for the commands");
  CommandLoop loop(host, terminal);
  std::string line;
  while (std::getline(std::cin, line) && loop.handle(line)) {
  }
  host.quit(kQuitWait);
  return 0;
}

}  // namespace orvi_chat
