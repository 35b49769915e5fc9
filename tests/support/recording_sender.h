// An ITransportSender that records every frame and HTTP request, and can be
// told to refuse frames. HTTP requests are kept with their callbacks so that
// a test can answer them later, from any thread.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "orvi/transport.h"

namespace orvi {
namespace test {

class RecordingSender : public ITransportSender {
 public:
  struct PendingRequest {
    HttpRequest request;
    std::shared_ptr<HttpCallback> callback;
  };

  bool sendMessage(const std::string& message) override {
    std::lock_guard<std::mutex> lock(mutex_);
    attempts_.push_back(message);
    if (fail_sends.load()) return false;
    frames_.push_back(message);
    return true;
  }

  void httpRequest(const HttpRequest& request, std::shared_ptr<HttpCallback> callback) override {
    std::lock_guard<std::mutex> lock(mutex_);
    requests_.push_back({request, std::move(callback)});
  }

  // Frames the sender accepted.
  std::vector<std::string> frames() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  // Every frame offered, accepted or not.
  std::vector<std::string> attempts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return attempts_;
  }
  std::vector<PendingRequest> requests() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return requests_;
  }

  std::atomic<bool> fail_sends{false};

 private:
  mutable std::mutex mutex_;
  std::vector<std::string> frames_;
  std::vector<std::string> attempts_;
  std::vector<PendingRequest> requests_;
};

}  // namespace test
}  // namespace orvi
