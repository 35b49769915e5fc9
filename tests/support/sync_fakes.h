// Test doubles for the sync channel's host side: a listener that records
// every event as a line of text, a sender that accepts or refuses frames by
// a script, a file uploader that keeps each upload for the test to answer,
// a polling wait for conditions that other threads make true, and content
// that gzip cannot shrink. Plain recording of frames is RecordingSender's
// (recording_sender.h).
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "orvi/sync_channel.h"
#include "orvi/transport.h"

namespace orvi {
namespace test {

// Polls `done` until it holds, for 20 s at most.
template <typename Done>
bool waitUntil(Done done) {
  for (int i = 0; i < 20000 && !done(); ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  return done();
}

// Random characters of every UTF-8 length: byte and character counts differ,
// and gzip cannot shrink it much.
inline std::string mixedUtf8(size_t chars) {
  static const char* alphabet[] = {"a", "Z", "7", "é", "ж", "€", "漢", "字", "😀", "🌍", "𐍈"};
  std::mt19937 rng(11);
  std::string out;
  for (size_t i = 0; i < chars; ++i) out += alphabet[rng() % (sizeof alphabet / sizeof *alphabet)];
  return out;
}

// Events read "ack doc 6", "nack doc -1", "query q1 state?", "collect c1",
// "sent doc[6] x[1]" or "failed doc[6]" (send results, records in order).
class RecordingSyncListener : public SyncChannelListener {
 public:
  void onAck(const std::string& id, int64_t index) override {
    add("ack " + id + " " + std::to_string(index));
  }
  void onNack(const std::string& id, int64_t index) override {
    add("nack " + id + " " + std::to_string(index));
  }
  void onQuery(const SyncDownlinkMessage& message, const std::string& query) override {
    add("query " + message.id + " " + query);
  }
  void onCollect(const SyncDownlinkMessage& message) override { add("collect " + message.id); }
  void onSendResult(bool success, const SentResults& results) override {
    std::string line = success ? "sent" : "failed";
    for (const auto& r : results.results) {
      for (int64_t i : r.indexes) line += " " + r.id + "[" + std::to_string(i) + "]";
    }
    add(line);
    if (on_send_result) on_send_result();
  }

  std::vector<std::string> events() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return events_;
  }
  size_t count(const std::string& event) const {
    const auto all = events();
    return static_cast<size_t>(std::count(all.begin(), all.end(), event));
  }

  // Runs on the reporting thread after each send result is recorded. Set it
  // before the first send; the sends order it before the reporting thread.
  std::function<void()> on_send_result;

 private:
  void add(std::string event) {
    std::lock_guard<std::mutex> lock(mutex_);
    events_.push_back(std::move(event));
  }

  mutable std::mutex mutex_;
  std::vector<std::string> events_;  // guarded by mutex_
};

// Answers each frame with `accept(attempt number from 0, frame)` (every
// frame accepted while unset) and records every attempt with its answer.
class ScriptedSyncSender : public ITransportSender {
 public:
  struct Attempt {
    std::string frame;
    bool accepted;
  };

  bool sendMessage(const std::string& frame) override {
    size_t attempt;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      attempt = attempts_.size();
      attempts_.push_back({frame, false});
    }
    const bool accepted = !accept || accept(attempt, frame);
    std::lock_guard<std::mutex> lock(mutex_);
    attempts_[attempt].accepted = accepted;
    return accepted;
  }
  void httpRequest(const HttpRequest&, std::shared_ptr<HttpCallback>) override {}

  std::vector<Attempt> attempts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return attempts_;
  }
  std::vector<std::string> accepted() const {
    std::vector<std::string> out;
    for (const auto& a : attempts()) {
      if (a.accepted) out.push_back(a.frame);
    }
    return out;
  }

  // Set before the first frame; called on the sending thread, no lock held.
  std::function<bool(size_t attempt, const std::string& frame)> accept;

 private:
  mutable std::mutex mutex_;
  std::vector<Attempt> attempts_;  // guarded by mutex_
};

// Keeps every upload with its callback for the test to answer later, as a
// host's uploader would. For channels without a sender thread, where uploads
// start on the thread that pushes.
struct FakeUploader : IFileUploader {
  void upload(const SyncInfo& info, std::shared_ptr<FileUploadStatusCallback> callback) override {
    calls.emplace_back(info, std::move(callback));
  }
  std::vector<std::pair<SyncInfo, std::shared_ptr<FileUploadStatusCallback>>> calls;
};

}  // namespace test
}  // namespace orvi
