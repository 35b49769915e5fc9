// A worker thread for what a session does on its own: running tool calls
// (a real tool may take seconds, and must not hold up the network I/O
// thread that delivered the call), sending queued prompts and recovering
// after a reconnect.
//
// Owns its thread: started by the constructor, joined by stop() or the
// destructor. Jobs run one at a time: those posted now in the order posted,
// delayed ones once they are due; on stop the job that is running finishes
// and the queued ones (delayed ones included) are dropped. post() may be
// called from any thread; after stop it drops the job. A job must not stop
// or destroy its own worker (the owner stops it before releasing what the
// jobs reach).
#pragma once

#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <map>
#include <mutex>
#include <thread>

namespace orvi_chat {

class Worker {
 public:
  Worker();
  ~Worker();
  Worker(const Worker&) = delete;
  Worker& operator=(const Worker&) = delete;

  void post(std::function<void()> job);
  // Runs `job` once `delay` has passed (and the jobs due before it ran).
  void postAfter(std::chrono::milliseconds delay, std::function<void()> job);
  void stop();

 private:
  using Clock = std::chrono::steady_clock;

  void run();

  std::mutex mutex_;  // guards stopped_, jobs_ and delayed_
  std::condition_variable wake_;
  bool stopped_ = false;
  std::deque<std::function<void()>> jobs_;
  std::multimap<Clock::time_point, std::function<void()>> delayed_;
  std::thread thread_;
};

}  // namespace orvi_chat
