// Splits the ws://, wss://, http:// and https:// addresses the network
// transport is configured with. No percent-decoding, user info or IPv6
// literals: the transport only needs host, port and target.
#pragma once

#include <string>

namespace orvi {
namespace net {

struct Url {
  std::string scheme;  // "ws", "wss", "http" or "https"
  bool tls = false;
  std::string host;
  std::string port;    // explicit, or the scheme's default
  std::string target;  // path and query; "/" when absent

  // "scheme://host:port" without the target; for log lines.
  std::string origin() const;
};

enum class UrlKind { WebSocket, Http };

// False, with the reason in *error, when `text` is not an address of `kind`.
bool parseUrl(const std::string& text, UrlKind kind, Url* url, std::string* error);

// `base`'s target with `path` appended, with exactly one slash between them.
std::string joinTarget(const std::string& base, const std::string& path);

}  // namespace net
}  // namespace orvi
