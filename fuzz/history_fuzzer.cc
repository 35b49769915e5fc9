// The legacy JSON history, as a damaged or hostile disk may hold it: the
// input is the index file ("orvi_history.json"), then a NUL byte, then the
// message file of the conversation "lc" ("lc.json"). The migration runs
// through a HistoryManager over an in-memory executor; every record it
// stores must read back as a message.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>

#include "fuzz_support.h"
#include "orvi/history/manager/history_manager.h"
#include "orvi/message/processor/message_processor.h"
#include "support/memory_sql_executor.h"
#include "support/temp_dir.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  orvi::fuzz::quietLogs();
  static const orvi::test::TempDir dir("orvi-fuzz-history");
  const std::string input = orvi::fuzz::asText(data, size);
  const size_t split = input.find('\0');
  std::error_code ignored;
  std::filesystem::remove(dir.file("lc.json"), ignored);
  dir.write("orvi_history.json", input.substr(0, split));
  if (split != std::string::npos) dir.write("lc.json", input.substr(split + 1));

  auto executor = std::make_shared<orvi::test::MemorySqlExecutor>();
  {
    orvi::HistoryManager manager;
    manager.init(dir.path(), executor, 36500, true);
    manager.flush();
  }
  if (!executor->isMigrated()) std::abort();  // a bad file is not tried again
  for (const auto& conversation : executor->conversations()) {
    for (const auto& record : executor->messages(conversation.local_conversation_id)) {
      if (!orvi::MessageProcessor::parse(record.content)) std::abort();
    }
  }
  return 0;
}
