// Kill-and-reopen over a real SQLite file: orvi_crash_host (crash_host.cc)
// holds a conversation and writes its history through orvi_sqlite; it is
// killed with SIGKILL at random moments, run after run on the same file, and
// after each kill the file is opened again and checked: not corrupt, every
// turn a flush returned for is there in full, turns in order, one row per
// message. The child restarts its ids at 1 in every run, so a store that
// keys a message by its server id alone shows up as answers overwritten
// across runs.
#ifdef ORVI_CRASH_HOST_PATH

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <map>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "orvi/message/processor/message_processor.h"
#include "orvi/message/wrapper/assistant_message_wrapper.h"
#include "orvi/message/wrapper/user_message_wrapper.h"
#include "support/recording_log_handler.h"
#include "support/temp_dir.h"

extern char** environ;

namespace orvi {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kRuns = 8;
constexpr int kNoFlush = -1;
// Only reached when something is wrong (a child that never starts).
constexpr std::chrono::seconds kPatience(60);

// One child process, its standard output read line by line.
class CrashHost {
 public:
  CrashHost(const std::string& dir, int run, unsigned seed) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    output_ = fds[0];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[1], STDOUT_FILENO);
    const std::string run_text = std::to_string(run), seed_text = std::to_string(seed);
    char* argv[] = {const_cast<char*>(ORVI_CRASH_HOST_PATH), const_cast<char*>(dir.c_str()),
                    const_cast<char*>(run_text.c_str()), const_cast<char*>(seed_text.c_str()),
                    nullptr};
    if (posix_spawn(&pid_, ORVI_CRASH_HOST_PATH, &actions, nullptr, argv, environ) != 0) pid_ = 0;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[1]);
    fcntl(output_, F_SETFL, O_NONBLOCK);
  }
  ~CrashHost() {
    kill();
    if (output_ >= 0) close(output_);
  }
  CrashHost(const CrashHost&) = delete;
  CrashHost& operator=(const CrashHost&) = delete;

  bool started() const { return pid_ > 0; }
  bool ready() const { return ready_; }
  int lastFlushed() const { return last_flushed_; }

  // Reads what the child printed until `until` is true or `deadline` passes.
  template <typename Until>
  void readUntil(Clock::time_point deadline, Until until) {
    while (!until() && !eof_) {
      const auto left =
          std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      if (left.count() <= 0) return;
      pollfd fd{output_, POLLIN, 0};
      if (poll(&fd, 1, static_cast<int>(left.count())) > 0) drain();
    }
  }

  // SIGKILL, then everything it printed before it died.
  void kill() {
    if (pid_ <= 0 || exited_) return;
    ::kill(pid_, SIGKILL);
    int status = 0;
    waitpid(pid_, &status, 0);
    exited_ = true;
    while (!eof_) {
      pollfd fd{output_, POLLIN, 0};
      if (poll(&fd, 1, 1000) <= 0) break;
      drain();
    }
  }

 private:
  void drain() {
    char buffer[4096];
    for (;;) {
      const ssize_t got = read(output_, buffer, sizeof buffer);
      if (got == 0) eof_ = true;
      if (got <= 0) break;
      pending_.append(buffer, static_cast<size_t>(got));
    }
    // Only whole lines count: a line cut by the kill was not reported.
    for (size_t end; (end = pending_.find('\n')) != std::string::npos; pending_.erase(0, end + 1)) {
      const std::string line = pending_.substr(0, end);
      if (line == "ready") ready_ = true;
      int turn = 0;
      if (std::sscanf(line.c_str(), "flushed %d", &turn) == 1) last_flushed_ = turn;
    }
  }

  pid_t pid_ = 0;
  int output_ = -1;
  std::string pending_;
  bool eof_ = false;
  bool exited_ = false;
  bool ready_ = false;
  int last_flushed_ = kNoFlush;
};

// One stored row of the conversation, as read back.
struct Row {
  std::string type, local_message_id, local_section_id, message_id;
  std::string text;  // the prompt, or the answer's text so far
  bool complete = false;
};

// What the rows of one turn (one prompt and its section) say.
struct Turn {
  int run = 0, number = 0;
  size_t prompt_row = 0;
  std::vector<size_t> answer_rows;
};

// Reads the file back with sqlite3 alone and holds its checks; each adds
// gtest failures. What a turn cut by the kill must look like (how an
// interrupted answer or an unacknowledged prompt is marked) is checked over
// unflushedTurns().
class HistoryFileCheck {
 public:
  // A kill before the host made the file, or its tables, leaves nothing to
  // read, which is fine as long as nothing was flushed.
  explicit HistoryFileCheck(const std::string& path) {
    if (!std::filesystem::exists(path)) {
      integrity_ = "ok";
      return;
    }
    // Read-write, as the next host opens it: that recovers the log of a
    // killed writer. Nothing is written.
    if (sqlite3_open_v2(path.c_str(), &db_, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK) {
      ADD_FAILURE() << "cannot open " << path << ": " << sqlite3_errmsg(db_);
      return;
    }
    integrity_ = queryText("PRAGMA integrity_check");
    if (!queryText("SELECT name FROM sqlite_master WHERE name = 'messages'").empty()) readRows();
  }
  ~HistoryFileCheck() { sqlite3_close(db_); }

  void expectIntact() const { EXPECT_EQ(integrity_, "ok"); }

  // One row per message, and every answer in the section of a prompt.
  void expectNoDuplicates() const {
    std::set<std::string> local_ids;
    std::set<std::pair<int, int>> prompts;
    for (const Row& row : rows_) {
      if (row.type != "user") continue;
      EXPECT_TRUE(local_ids.insert(row.local_message_id).second) << row.text;
    }
    for (const Turn& turn : turns_) {
      EXPECT_TRUE(prompts.insert({turn.run, turn.number}).second)
          << "run " << turn.run << " prompt " << turn.number << " stored twice";
      EXPECT_LE(turn.answer_rows.size(), 1u) << "run " << turn.run << " turn " << turn.number;
    }
    EXPECT_EQ(orphan_answers_, 0u) << "answers outside any stored prompt's section";
  }

  // Turns in the order they were held, each answer after its own prompt and
  // before the next prompt; within a run, no turn missing before the last
  // one stored (a crash loses only the newest writes).
  void expectOrderKept() const {
    for (size_t i = 0; i < turns_.size(); ++i) {
      const Turn& turn = turns_[i];
      const size_t next_prompt = i + 1 < turns_.size() ? turns_[i + 1].prompt_row : rows_.size();
      for (size_t answer : turn.answer_rows) {
        EXPECT_TRUE(answer > turn.prompt_row && answer < next_prompt)
            << "run " << turn.run << " turn " << turn.number;
      }
      if (i == 0) continue;
      const Turn& before = turns_[i - 1];
      const bool next_in_run = turn.run == before.run && turn.number == before.number + 1;
      const bool new_run = turn.run > before.run && turn.number == 0;
      EXPECT_TRUE(next_in_run || new_run)
          << "run " << turn.run << " turn " << turn.number << " follows run " << before.run
          << " turn " << before.number;
    }
  }

  // A turn the kill cut keeps what it had: its answer, if stored, is the
  // beginning of the real one, never another turn's text.
  void expectUnflushedTurnsConsistent(const std::map<int, int>& last_flushed) const {
    for (const Turn* turn : unflushedTurns(last_flushed)) {
      const std::string full =
          "run " + std::to_string(turn->run) + " answer " + std::to_string(turn->number);
      for (size_t answer : turn->answer_rows) {
        const Row& row = rows_[answer];
        EXPECT_EQ(full.compare(0, row.text.size(), row.text), 0) << row.text << " in " << full;
        EXPECT_TRUE(!row.complete || row.text == full) << row.text;
      }
    }
  }

  // A prompt is stored when it is sent and given its server id when it is
  // acknowledged, before any of its answer: a prompt still without one was
  // cut by the kill, so it has no answer and is the newest of its run.
  void expectUnacknowledgedPromptsOnlyWhereTheKillCut() const {
    for (size_t i = 0; i < turns_.size(); ++i) {
      const Turn& turn = turns_[i];
      if (!rows_[turn.prompt_row].message_id.empty()) continue;
      EXPECT_TRUE(turn.answer_rows.empty())
          << "run " << turn.run << " turn " << turn.number << " answered, never acknowledged";
      EXPECT_TRUE(i + 1 == turns_.size() || turns_[i + 1].run != turn.run)
          << "run " << turn.run << " turn " << turn.number << " unacknowledged, yet not the last";
    }
  }

  // Every turn up to the last one a flush returned for, with the whole
  // answer, complete.
  void expectFlushedTurnsComplete(const std::map<int, int>& last_flushed) const {
    for (const auto& [run, last] : last_flushed) {
      for (int number = 0; number <= last; ++number) {
        const Turn* turn = find(run, number);
        ASSERT_NE(turn, nullptr) << "run " << run << " turn " << number << " was flushed";
        ASSERT_EQ(turn->answer_rows.size(), 1u) << "run " << run << " turn " << number;
        const Row& answer = rows_[turn->answer_rows[0]];
        EXPECT_EQ(answer.text, "run " + std::to_string(run) + " answer " + std::to_string(number));
        EXPECT_TRUE(answer.complete) << answer.text;
      }
    }
  }

 private:
  std::string queryText(const char* sql) const {
    sqlite3_stmt* statement = nullptr;
    std::string out;
    if (sqlite3_prepare_v2(db_, sql, -1, &statement, nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
      out = reinterpret_cast<const char*>(sqlite3_column_text(statement, 0));
    }
    sqlite3_finalize(statement);
    return out;
  }

  void readRows() {
    sqlite3_stmt* statement = nullptr;
    ASSERT_EQ(
        sqlite3_prepare_v2(db_,
                           "SELECT type, local_message_id, local_section_id, content, message_id "
                           "FROM messages WHERE local_conversation_id = 'crash' ORDER BY seq",
                           -1, &statement, nullptr),
        SQLITE_OK);
    const auto text = [&](int column) {
      const auto* value = sqlite3_column_text(statement, column);
      return value ? std::string(reinterpret_cast<const char*>(value)) : std::string();
    };
    std::map<std::string, size_t> turn_of_section;
    while (sqlite3_step(statement) == SQLITE_ROW) {
      Row row;
      row.type = text(0);
      row.local_message_id = text(1);
      row.local_section_id = text(2);
      row.message_id = text(4);
      readContent(text(3), row);
      rows_.push_back(row);
      Turn turn;
      if (row.type == "user" &&
          std::sscanf(row.text.c_str(), "run %d prompt %d", &turn.run, &turn.number) == 2) {
        turn.prompt_row = rows_.size() - 1;
        turn_of_section[row.local_section_id] = turns_.size();
        turns_.push_back(turn);
      } else if (row.type == "assistant") {
        const auto found = turn_of_section.find(row.local_section_id);
        if (found == turn_of_section.end()) {
          ++orphan_answers_;
        } else {
          turns_[found->second].answer_rows.push_back(rows_.size() - 1);
        }
      }
    }
    sqlite3_finalize(statement);
  }

  static void readContent(const std::string& frame, Row& row) {
    const MessagePtr message = MessageProcessor::parse(frame);
    if (const auto* user = dynamic_cast<const UserMessageWrapper*>(message.get())) {
      if (user->message() && user->message()->content) row.text = user->message()->content->content;
    } else if (const auto* answer = dynamic_cast<const AssistantMessageWrapper*>(message.get())) {
      const auto& record = answer->message();
      if (record && record->content) {
        row.text =
            nlohmann::json::parse(record->content->content, nullptr, false).value("text", "");
      }
      row.complete = record && record->status == MessageStatus::Completed;
    }
  }

  // Turns after the last flushed one of their run (or of a run that never
  // flushed): the ones a kill may have cut anywhere.
  std::vector<const Turn*> unflushedTurns(const std::map<int, int>& last_flushed) const {
    std::vector<const Turn*> out;
    for (const Turn& turn : turns_) {
      const auto flushed = last_flushed.find(turn.run);
      if (flushed == last_flushed.end() || turn.number > flushed->second) out.push_back(&turn);
    }
    return out;
  }

  const Turn* find(int run, int number) const {
    for (const Turn& turn : turns_) {
      if (turn.run == run && turn.number == number) return &turn;
    }
    return nullptr;
  }

  sqlite3* db_ = nullptr;
  std::string integrity_;
  std::vector<Row> rows_;
  std::vector<Turn> turns_;
  size_t orphan_answers_ = 0;
};

TEST(HistoryCrashTest, KilledHostsLeaveAnIntactFileWithEverythingFlushed) {
  test::ScopedLogCapture quiet;  // the checker parses thousands of frames
  test::TempDir dir("orvi-crash");
  const unsigned seed = std::random_device()();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  std::map<int, int> last_flushed;
  for (int run = 0; run < kRuns; ++run) {
    SCOPED_TRACE("run " + std::to_string(run));
    CrashHost host(dir.path(), run, static_cast<unsigned>(random()));
    ASSERT_TRUE(host.started());
    const auto started = Clock::now();
    if (run == 0) {
      // Early: while the file, its schema or the conversation is being made.
      host.readUntil(started + std::chrono::milliseconds(random() % 60), [] { return false; });
    } else if (run + 1 < kRuns) {
      host.readUntil(started + kPatience, [&] { return host.ready(); });
      ASSERT_TRUE(host.ready()) << "the host never got ready";
      host.readUntil(Clock::now() + std::chrono::milliseconds(random() % 400),
                     [] { return false; });
    } else {
      // The last run goes on until at least one flush, so the checks below
      // always have flushed turns to look for.
      host.readUntil(started + kPatience, [&] { return host.lastFlushed() != kNoFlush; });
      ASSERT_NE(host.lastFlushed(), kNoFlush) << "the host never flushed";
      host.readUntil(Clock::now() + std::chrono::milliseconds(random() % 100),
                     [] { return false; });
    }
    host.kill();
    if (host.lastFlushed() != kNoFlush) last_flushed[run] = host.lastFlushed();

    HistoryFileCheck check(dir.file("history.db"));
    check.expectIntact();
    check.expectNoDuplicates();
    check.expectOrderKept();
    check.expectFlushedTurnsComplete(last_flushed);
    check.expectUnflushedTurnsConsistent(last_flushed);
    check.expectUnacknowledgedPromptsOnlyWhereTheKillCut();
    if (HasFailure()) return;
  }
  EXPECT_FALSE(last_flushed.empty());
}

}  // namespace
}  // namespace orvi

#endif  // ORVI_CRASH_HOST_PATH
