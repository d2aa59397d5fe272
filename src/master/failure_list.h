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

// The command lines of the jobs that failed, for the last record of the log. Each is cut at kMostBytes, because a
// command line may have many megabytes; those beyond the bound are only counted. One thread at a time.
class FailureList {
 public:
  static constexpr std::size_t kNoBound = std::numeric_limits<std::size_t>::max();

  // Of a command line; a longer one ends in "..." behind these.
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
