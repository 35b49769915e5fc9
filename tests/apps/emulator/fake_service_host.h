// A ServiceHost without sockets, for the emulator's unit tests and its fuzz
// target: it records the frames and cuts, and runs scheduled tasks on a
// fake clock when told to. Single-threaded, like the real one.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "service_host.h"

namespace orvi {
namespace emulator {

class FakeHost : public ServiceHost {
 public:
  void send(SessionId session, std::string text) override { sent.push_back({session, text}); }
  void cut(SessionId session, bool mid_frame) override { cuts.push_back({session, mid_frame}); }
  void schedule(int32_t delay_ms, std::function<void()> task) override {
    tasks.emplace(now + delay_ms, std::move(task));  // equal times keep their order
  }
  int64_t nowMs() override { return now; }

  // Runs the tasks due within `ms`, in time order, moving the clock along.
  void advance(int64_t ms) {
    const int64_t until = now + ms;
    while (!tasks.empty() && tasks.begin()->first <= until) {
      now = tasks.begin()->first;
      auto task = std::move(tasks.begin()->second);
      tasks.erase(tasks.begin());
      task();
    }
    now = until;
  }
  void runAll() { advance(1000000); }

  std::vector<std::pair<SessionId, std::string>> sent;
  std::vector<std::pair<SessionId, bool>> cuts;
  std::multimap<int64_t, std::function<void()>> tasks;
  int64_t now = 1795305600000;
};

}  // namespace emulator
}  // namespace orvi
