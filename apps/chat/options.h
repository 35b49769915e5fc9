// The command line of orvi-chat: what the user asked for, checked but not
// yet acted on. Parsing has no side effects, so it can be tested alone.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace orvi_chat {

struct ChatOptions {
  bool demo = false;
  bool help = false;
  bool verbose = false;
  std::string server_url;    // --server ws://HOST:PORT/chat
  std::string http_url;      // --http http://HOST:PORT
  std::string cache_dir;     // --cache DIR; empty: the default (interactive) or a temp dir (demo)
  std::string conversation;  // --conversation LOCAL_ID; empty: a new conversation
  std::string log_file;      // --log FILE; empty: orvi-chat.log in the cache directory
  std::optional<int32_t> ack_timeout_ms;  // --ack-timeout-ms N; empty: the library's default
  std::vector<std::pair<std::string, std::string>> headers;  // --header K:V, in order
};

// Reads argv (without argv[0]). Returns nothing, with the reason in *error,
// for an unknown flag, a flag without its value, a header without ':' or an
// interactive run without --server.
std::optional<ChatOptions> parseArguments(const std::vector<std::string>& args, std::string* error);

// $XDG_CACHE_HOME/orvi-chat, else $HOME/.cache/orvi-chat, else ./.orvi-chat.
std::string defaultCacheDir();

const char* usageText();

}  // namespace orvi_chat
