// orvi-chat's command line: what each flag sets, and what is refused.
#include "options.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

namespace orvi_chat {
namespace {

TEST(ChatOptionsTest, RefusesIncompleteOrUnknownArguments) {
  struct Case {
    std::vector<std::string> args;
    std::string error;  // a part of the expected reason
  };
  const Case cases[] = {
      {{}, "--server is required"},
      {{"--http", "http://h:1"}, "--server is required"},
      {{"--server"}, "--server needs a value"},
      {{"--server", ""}, "--server needs a value"},
      {{"--server", "ws://h:1/chat", "--cache"}, "--cache needs a value"},
      {{"--server", "ws://h:1/chat", "--header", "Authorization"}, "NAME:VALUE"},
      {{"--server", "ws://h:1/chat", "--header", " :token"}, "NAME:VALUE"},
      {{"--server", "ws://h:1/chat", "--verbosity"}, "unknown argument '--verbosity'"},
      {{"ws://h:1/chat"}, "unknown argument"},
      {{"--server", "ws://h:1/chat", "--ack-timeout-ms", "0"}, "[1, 600000]"},
      {{"--server", "ws://h:1/chat", "--ack-timeout-ms", "5s"}, "got '5s'"},
      {{"--server", "ws://h:1/chat", "--ack-timeout-ms", "99999999999"}, "[1, 600000]"},
  };
  for (const auto& test : cases) {
    std::string error;
    EXPECT_FALSE(parseArguments(test.args, &error).has_value()) << test.error;
    EXPECT_NE(error.find(test.error), std::string::npos) << "got: " << error;
  }
}

TEST(ChatOptionsTest, ReadsEveryFlagAndKeepsHeadersInOrder) {
  std::string error;
  const auto options = parseArguments(
      {"--server", "wss://chat.example:443/chat", "--http", "https://chat.example", "--cache",
       "/tmp/c", "--header", "Authorization: Bearer a:b:c", "--header", "X-Trace:7",
       "--conversation", "lc-1", "--log", "/tmp/l.log", "--ack-timeout-ms", "750", "--verbose"},
      &error);
  ASSERT_TRUE(options.has_value()) << error;
  EXPECT_FALSE(options->demo);
  EXPECT_TRUE(options->verbose);
  EXPECT_EQ(options->server_url, "wss://chat.example:443/chat");
  EXPECT_EQ(options->http_url, "https://chat.example");
  EXPECT_EQ(options->cache_dir, "/tmp/c");
  EXPECT_EQ(options->conversation, "lc-1");
  EXPECT_EQ(options->log_file, "/tmp/l.log");
  EXPECT_EQ(options->ack_timeout_ms, std::optional<int32_t>(750));
  // Only the first ':' splits: a token may contain more.
  const std::vector<std::pair<std::string, std::string>> headers = {
      {"Authorization", "Bearer a:b:c"}, {"X-Trace", "7"}};
  EXPECT_EQ(options->headers, headers);
}

TEST(ChatOptionsTest, DemoAndHelpNeedNoServer) {
  std::string error;
  const auto demo = parseArguments({"--demo", "--cache", "/tmp/d"}, &error);
  ASSERT_TRUE(demo.has_value()) << error;
  EXPECT_TRUE(demo->demo);
  EXPECT_EQ(demo->cache_dir, "/tmp/d");
  const auto help = parseArguments({"-h"}, &error);
  ASSERT_TRUE(help.has_value()) << error;
  EXPECT_TRUE(help->help);
}

// Sets an environment variable for one scope, then puts the old value back.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    if (old) old_ = old;
    setenv(name, value, 1);
  }
  ~ScopedEnv() {
    if (old_) {
      setenv(name_, old_->c_str(), 1);
    } else {
      unsetenv(name_);
    }
  }

 private:
  const char* name_;
  std::optional<std::string> old_;
};

TEST(ChatOptionsTest, DefaultCacheDirFollowsXdgThenHome) {
  ScopedEnv home("HOME", "/home/u");
  {
    ScopedEnv xdg("XDG_CACHE_HOME", "/x/cache");
    EXPECT_EQ(defaultCacheDir(), "/x/cache/orvi-chat");
  }
  ScopedEnv empty_xdg("XDG_CACHE_HOME", "");
  EXPECT_EQ(defaultCacheDir(), "/home/u/.cache/orvi-chat");
}

}  // namespace
}  // namespace orvi_chat
