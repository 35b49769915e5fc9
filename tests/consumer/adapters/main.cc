// Links the installed library with both adapters and uses each once, without
// a network: a history file in the temporary directory and a transport that
// refuses an address it cannot use.
#include <orvi/net/net_transport.h>
#include <orvi/orvi.h>
#include <orvi/sqlite/sqlite_executor.h>

#include <cstdio>
#include <filesystem>

int main() {
  const auto path = std::filesystem::temp_directory_path() / "orvi-consumer-adapters.db";
  std::filesystem::remove(path);
  std::string error;
  auto history = orvi::sqlite::SqliteExecutor::open(path.string(), &error);
  if (!history) {
    std::fprintf(stderr, "history: %s\n", error.c_str());
    return 1;
  }
  orvi::net::NetOptions options;
  options.websocket_url = "ftp://127.0.0.1/chat";
  if (orvi::net::NetTransport::create(options, &error) || error.empty()) {
    std::fprintf(stderr, "the transport accepted an ftp:// address\n");
    return 1;
  }
  std::filesystem::remove(path);
  std::printf("adapters ok (tls: %d)\n", orvi::net::tlsSupported() ? 1 : 0);
  return 0;
}
