#include "url.h"

#include <cctype>

namespace orvi {
namespace net {

std::string Url::origin() const {
  return scheme + "://" + host + ":" + port;
}

namespace {

bool fail(std::string* error, const std::string& text, const char* why) {
  if (error) *error = "bad address '" + text + "': " + why;
  return false;
}

bool allDigits(const std::string& text) {
  if (text.empty() || text.size() > 5) return false;
  for (char c : text)
    if (!std::isdigit(static_cast<unsigned char>(c))) return false;
  return std::stoi(text) > 0 && std::stoi(text) < 65536;
}

}  // namespace

bool parseUrl(const std::string& text, UrlKind kind, Url* url, std::string* error) {
  const auto scheme_end = text.find("://");
  if (scheme_end == std::string::npos) return fail(error, text, "no scheme");
  const std::string scheme = text.substr(0, scheme_end);
  const std::string plain = kind == UrlKind::WebSocket ? "ws" : "http";
  if (scheme != plain && scheme != plain + "s")
    return fail(
        error, text,
        kind == UrlKind::WebSocket ? "expected ws:// or wss://" : "expected http:// or https://");
  Url result;
  result.scheme = scheme;
  result.tls = scheme.size() > plain.size();

  const std::string rest = text.substr(scheme_end + 3);
  const auto path_start = rest.find_first_of("/?");
  const std::string authority = rest.substr(0, path_start);
  result.target = path_start == std::string::npos ? "/" : rest.substr(path_start);
  if (result.target.front() == '?') result.target.insert(0, "/");

  const auto colon = authority.rfind(':');
  result.host = authority.substr(0, colon);
  result.port =
      colon == std::string::npos ? (result.tls ? "443" : "80") : authority.substr(colon + 1);
  if (result.host.empty()) return fail(error, text, "no host");
  if (result.host.find_first_of("@[]") != std::string::npos)
    return fail(error, text, "user info and IPv6 literals are not supported");
  if (!allDigits(result.port)) return fail(error, text, "bad port");
  *url = std::move(result);
  return true;
}

std::string joinTarget(const std::string& base, const std::string& path) {
  std::string prefix = base;
  while (!prefix.empty() && prefix.back() == '/') prefix.pop_back();
  if (path.empty() || path.front() != '/') prefix += '/';
  return prefix + path;
}

}  // namespace net
}  // namespace orvi
