// The receiving end of the sync channel ("/sync"): every record of every
// uplink envelope is acknowledged, a fragmented record once all of its
// fragments have arrived. The sync_nack_fragment fault refuses one fragment
// of the first fragmented record that starts arriving while it is armed.
//
// Used on the emulator's I/O thread only; fragments are collected across
// sessions, keyed by record id and index, and dropped once acknowledged.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <utility>

#include "fault_switches.h"
#include "service_host.h"

namespace orvi {
namespace emulator {

class SyncService {
 public:
  using Log = std::function<void(const std::string& line)>;

  SyncService(ServiceHost& host, FaultSwitches& faults, Log log)
      : host_(host), faults_(faults), log_(std::move(log)) {}

  void onText(SessionId session, const std::string& text);

 private:
  using RecordKey = std::pair<std::string, int64_t>;  // id, index
  struct Collecting {
    int32_t total = 0;
    std::set<int32_t> arrived;
  };
  // One fragment; true when its record is now complete.
  bool collect(SessionId session, const RecordKey& key, int32_t total, int32_t fragment);
  void reply(SessionId session, const RecordKey& key, const char* action, int32_t total,
             int32_t fragment);
  void log(const std::string& line) const;

  ServiceHost& host_;
  FaultSwitches& faults_;
  const Log log_;
  std::map<RecordKey, Collecting> collecting_;
  std::set<RecordKey> completed_;  // a late resend of one of these is acknowledged again
  // The record whose fragment is to be refused, once; taken from the fault
  // when a fragmented record starts arriving and none is pending.
  RecordKey nack_record_;
  int32_t nack_fragment_ = -1;
};

}  // namespace emulator
}  // namespace orvi
