// The master's records: all under the component CLIENT, with numbers as unsigned decimal text.
#ifndef KESTRUN_MASTER_MASTER_LOG_H_
#define KESTRUN_MASTER_MASTER_LOG_H_

#include <string>
#include <utility>

#include "runtime/log.h"
#include "runtime/types.h"

namespace kestrun {

inline void WriteMasterLog(Log::Level level, const std::string& message, const Log::Fields& fields = {}) {
  if (Log* log = Log::Get()) log->Write(level, Log::CLIENT, message, fields);
}

// False where records go nowhere. Those of each job are not made then.
inline bool IsMasterLogOpen() {
  const Log* log = Log::Get();
  return log != nullptr && log->IsOpen();
}

inline std::pair<std::string, std::string> LogField(const char* name, u64 value) {
  return {name, std::to_string(value)};
}

}  // namespace kestrun

#endif  // KESTRUN_MASTER_MASTER_LOG_H_
