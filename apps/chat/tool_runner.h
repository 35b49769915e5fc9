// A worker thread for tool calls, so that a tool never runs on the network
// I/O thread that delivered the call (a real tool may take seconds).
//
// Owns its thread: started by the constructor, joined by stop() or the
// destructor. Jobs run one at a time in the order posted; on stop the job
// that is running finishes and the queued ones are dropped. post() may be
// called from any thread; after stop it drops the job. A job must not stop
// or destroy its own runner (the owner stops it before releasing what the
// jobs reach).
#pragma once

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace orvi_chat {

class ToolRunner {
 public:
  ToolRunner();
  ~ToolRunner();
  ToolRunner(const ToolRunner&) = delete;
  ToolRunner& operator=(const ToolRunner&) = delete;

  void post(std::function<void()> job);
  void stop();

 private:
  void run();

  std::mutex mutex_;  // guards stopped_ and jobs_
  std::condition_variable wake_;
  bool stopped_ = false;
  std::deque<std::function<void()>> jobs_;
  std::thread thread_;
};

}  // namespace orvi_chat
