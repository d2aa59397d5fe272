// Writes the master's records to the log: all under the component CLIENT, with numbers as unsigned decimal text.
//
// Any thread. Building the fields takes time even if no log is open, so frequent records ask IsLogOpen first.
#ifndef KESTRUN_MASTER_MASTER_LOG_H_
#define KESTRUN_MASTER_MASTER_LOG_H_

#include <string>
#include <utility>

#include "runtime/base/types.h"
#include "runtime/files/log.h"

namespace kestrun {

inline void WriteMasterLog(Log::Level level, const std::string& message, const Log::Fields& fields = {}) {
  WriteLog(level, Log::CLIENT, message, fields);
}

inline std::pair<std::string, std::string> LogField(const char* name, u64 value) {
  return {name, std::to_string(value)};
}

}  // namespace kestrun

#endif  // KESTRUN_MASTER_MASTER_LOG_H_
