#ifndef KESTRUN_MASTER_FAILURE_LIST_H_
#define KESTRUN_MASTER_FAILURE_LIST_H_

#include <cstddef>
#include <limits>
#include <map>
#include <string>

#include "master/master_log.h"
#include "runtime/base/types.h"
#include "runtime/files/log.h"

namespace kestrun {

// Collects the command lines of failed jobs for the last record of the log.
//
// Each command line is cut at kMostBytes, because it may have many megabytes; those beyond the bound are only counted.
// Owned by the master, which adds under its handling lock and reads when all threads have ended; nothing fails.
class FailureList {
 public:
  static constexpr std::size_t kNoBound = std::numeric_limits<std::size_t>::max();

  // The longest command line that is kept whole; of a longer one this many bytes are kept, and "..." is appended.
  static constexpr std::size_t kMostBytes = 1024;

  explicit FailureList(std::size_t bound) : bound_(bound) {}

  void Add(u32 jobId, const std::string& commandLine) {
    if (commands_.size() < bound_) {
      commands_[jobId] = commandLine.size() <= kMostBytes ? commandLine : commandLine.substr(0, kMostBytes) + "...";
    } else {
      ++unlisted_;
    }
  }

  // In the order of the job numbers.
  void AddTo(Log::Fields& fields) const {
    for (const auto& [id, command] : commands_) fields.emplace_back("failed_file", command);
    if (unlisted_ > 0) fields.push_back(LogField("more_failed_files", unlisted_));
  }

 private:
  const std::size_t bound_;
  std::map<u32, std::string> commands_;
  u64 unlisted_ = 0;
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_FAILURE_LIST_H_
