#include "options.h"

#include <cstdlib>

namespace orvi_chat {
namespace {

std::string trim(const std::string& text) {
  const auto first = text.find_first_not_of(" \t");
  if (first == std::string::npos) return std::string();
  const auto last = text.find_last_not_of(" \t");
  return text.substr(first, last - first + 1);
}

// "K:V" with a non-empty name; the value may itself contain ':' (a URL, a
// token), so only the first one splits.
bool parseHeader(const std::string& text, std::pair<std::string, std::string>* header) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) return false;
  header->first = trim(text.substr(0, colon));
  header->second = trim(text.substr(colon + 1));
  return !header->first.empty();
}

}  // namespace

std::optional<ChatOptions> parseArguments(const std::vector<std::string>& args,
                                          std::string* error) {
  ChatOptions options;
  auto fail = [error](const std::string& reason) {
    if (error) *error = reason;
    return std::nullopt;
  };
  for (size_t i = 0; i < args.size(); ++i) {
    const std::string& flag = args[i];
    if (flag == "--demo") {
      options.demo = true;
      continue;
    }
    if (flag == "--verbose" || flag == "-v") {
      options.verbose = true;
      continue;
    }
    if (flag == "--help" || flag == "-h") {
      options.help = true;
      continue;
    }
    std::string* target = nullptr;
    if (flag == "--server") target = &options.server_url;
    if (flag == "--http") target = &options.http_url;
    if (flag == "--cache") target = &options.cache_dir;
    if (flag == "--conversation") target = &options.conversation;
    if (flag == "--log") target = &options.log_file;
    const bool is_header = flag == "--header";
    const bool is_ack_timeout = flag == "--ack-timeout-ms";
    if (!target && !is_header && !is_ack_timeout) return fail("unknown argument '" + flag + "'");
    if (i + 1 >= args.size() || args[i + 1].empty()) return fail(flag + " needs a value");
    const std::string& value = args[++i];
    if (target) {
      *target = value;
      continue;
    }
    if (is_ack_timeout) {
      char* end = nullptr;
      const long ms = std::strtol(value.c_str(), &end, 10);
      if (*end != '\0' || ms < 1 || ms > 600000) {
        return fail("--ack-timeout-ms wants a number of milliseconds in [1, 600000], got '" +
                    value + "'");
      }
      options.ack_timeout_ms = static_cast<int32_t>(ms);
      continue;
    }
    std::pair<std::string, std::string> header;
    if (!parseHeader(value, &header)) return fail("--header wants NAME:VALUE, got '" + value + "'");
    options.headers.push_back(std::move(header));
  }
  if (!options.help && !options.demo && options.server_url.empty()) {
    return fail("--server is required (or use --demo)");
  }
  return options;
}

std::string defaultCacheDir() {
  if (const char* xdg = std::getenv("XDG_CACHE_HOME"); xdg && *xdg) {
    return std::string(xdg) + "/orvi-chat";
  }
  if (const char* home = std::getenv("HOME"); home && *home) {
    return std::string(home) + "/.cache/orvi-chat";
  }
  return ".orvi-chat";
}

const char* usageText() {
  return "usage: orvi-chat --server ws://HOST:PORT/chat [--http http://HOST:PORT]\n"
         "                 [--cache DIR] [--header NAME:VALUE]... [--conversation LOCAL_ID]\n"
         "                 [--log FILE] [--ack-timeout-ms N] [--verbose]\n"
         "       orvi-chat --demo [--cache DIR] [--log FILE] [--verbose]\n"
         "\n"
         "Interactive: type a prompt, or /help for the commands.\n"
         "Diagnostics go to FILE (default: orvi-chat.log in the cache directory).\n"
         "--demo runs a scripted conversation against an emulated service inside the\n"
         "process and checks that the history restored after a restart matches it.\n";
}

}  // namespace orvi_chat
