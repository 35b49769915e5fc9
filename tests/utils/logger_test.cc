#include "orvi/utils/logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <iostream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "orvi/logger.h"
#include "support/recording_log_handler.h"

namespace orvi {
namespace {

using test::RecordingLogHandler;
using test::ScopedLogCapture;

// Redirects std::cout for the life of the object.
class StdoutCapture {
 public:
  StdoutCapture() : old_(std::cout.rdbuf(buffer_.rdbuf())) {}
  ~StdoutCapture() { std::cout.rdbuf(old_); }
  std::string text() const { return buffer_.str(); }

 private:
  std::ostringstream buffer_;
  std::streambuf* old_;
};

TEST(LoggerTest, LineCarriesLevelSourceFunctionAndLine) {
  ScopedLogCapture capture;
  const int line = __LINE__ + 1;
  ORVI_LOGW("value %d of %s", 42, "answer");
  ASSERT_EQ(capture->lines().size(), 1u);
  EXPECT_EQ(capture->lines()[0], "[WARN][tests/utils/logger_test.cc:TestBody:" +
                                     std::to_string(line) + "][Orvi] value 42 of answer");
}

TEST(LoggerTest, ThresholdSuppressesLowerLevelsIncludingItsOwnConfirmation) {
  ScopedLogCapture capture;
  ORVI_LOGD("debug at default threshold");
  EXPECT_TRUE(capture->has("debug at default threshold"));

  capture->clear();
  ILogger::setLogLevel(LogLevel::Warn);
  ORVI_LOGD("hidden debug");
  ORVI_LOGI("hidden info");
  ORVI_LOGW("shown warn");
  ORVI_LOGE("shown error");
  EXPECT_EQ(capture->lines().size(), 2u);
  EXPECT_FALSE(capture->has("update log level to 2"));
  EXPECT_TRUE(capture->has("shown warn"));
  EXPECT_TRUE(capture->has("shown error"));

  capture->clear();
  ILogger::setLogLevel(LogLevel::Info);
  EXPECT_TRUE(capture->has("update log level to 1"));
}

TEST(LoggerTest, FirstHandlerStaysUntilCleared) {
  ScopedLogCapture capture;
  auto second = std::make_shared<RecordingLogHandler>();
  ILogger::registerHandler(second);
  ORVI_LOGI("after second registration");
  EXPECT_TRUE(capture->has("after second registration"));
  EXPECT_TRUE(second->lines().empty());
  EXPECT_FALSE(capture->has("register logger handler success"));

  ILogger::registerHandler(nullptr);
  {
    StdoutCapture out;
    ORVI_LOGE("to stdout");
    const std::string text = out.text();
    EXPECT_EQ(text.rfind("\x1b[31m[ERROR][", 0), 0u) << text;
    EXPECT_NE(text.find("[Orvi] to stdout\x1b[0m\n"), std::string::npos) << text;
  }
  EXPECT_FALSE(capture->has("to stdout"));

  ILogger::registerHandler(second);
  EXPECT_TRUE(second->has("register logger handler success"));
  ILogger::registerHandler(nullptr);
}

TEST(LoggerTest, ColoursPerLevelAndNoneForUnknownLevels) {
  ScopedLogCapture capture;
  ILogger::registerHandler(nullptr);
  const struct {
    LogLevel level;
    const char* prefix;
  } cases[] = {
      {LogLevel::Debug, "\x1b[36m[DEBUG]"},
      {LogLevel::Info, "\x1b[32m[INFO]"},
      {LogLevel::Warn, "\x1b[33m[WARN]"},
      {LogLevel::Error, "\x1b[31m[ERROR]"},
      {static_cast<LogLevel>(4), "[]["},
  };
  for (const auto& c : cases) {
    StdoutCapture out;
    ORVI_LOG(c.level, "x");
    EXPECT_EQ(out.text().rfind(c.prefix, 0), 0u) << out.text();
  }
}

TEST(LoggerTest, LongMessagesAreCutAtTheBuffer) {
  ScopedLogCapture capture;
  const std::string long_text(5000, 'x');
  ORVI_LOGI("%s", long_text.c_str());
  ASSERT_EQ(capture->lines().size(), 1u);
  const std::string line = capture->lines()[0];
  EXPECT_EQ(line.size(), 4095u);
  EXPECT_EQ(line.back(), 'x');
}

// Logging while other threads change the level and the handler must be free
// of data races (run under ThreadSanitizer) and never lose the format.
TEST(LoggerTest, ConcurrentLoggingWhileLevelAndHandlerChange) {
  ScopedLogCapture capture;
  std::atomic<bool> stop{false};
  std::vector<std::thread> loggers;
  for (int t = 0; t < 3; ++t) {
    loggers.emplace_back([&stop, t] {
      for (int i = 0; !stop.load() && i < 20000; ++i) ORVI_LOGW("thread %d line %d", t, i);
    });
  }
  auto other = std::make_shared<RecordingLogHandler>();
  for (int i = 0; i < 200; ++i) {
    // Raise the threshold while no handler is installed, so that the warn
    // lines do not go to the real standard output meanwhile.
    ILogger::setLogLevel(LogLevel::Error);
    ILogger::registerHandler(nullptr);
    ILogger::registerHandler(i % 2 ? other : capture.handler());
    ILogger::setLogLevel(LogLevel::Debug);
  }
  stop = true;
  for (auto& t : loggers) t.join();

  for (const auto* handler : {capture.handler().get(), other.get()}) {
    for (const auto& line : handler->lines()) {
      const std::string message = RecordingLogHandler::messageOf(line);
      EXPECT_TRUE(message.rfind("thread ", 0) == 0 || message.rfind("register", 0) == 0 ||
                  message.rfind("update", 0) == 0)
          << line;
    }
  }
}

}  // namespace
}  // namespace orvi
