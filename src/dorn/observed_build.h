// What dorn shows and writes of its build.
#ifndef KESTRUN_DORN_OBSERVED_BUILD_H_
#define KESTRUN_DORN_OBSERVED_BUILD_H_

#include <memory>
#include <string>

#include "dorn/build_observer.h"
#include "dorn/build_record.h"
#include "dorn/options.h"

namespace kestrun::dorn {

// Observes the master from construction on, if anything of what it learns is wanted. A master that can't be observed is
// a warning and no reason not to build. One thread.
class ObservedBuild {
 public:
  // With `isOwnMaster` false the master belongs to an outer build, whose dorn writes history and unasked summaries.
  ObservedBuild(const Options& options, const std::string& masterId, bool isOwnMaster);

  // The build has ended: writes the files that were asked for, and prints the summary.
  void Report(int exitCode);

 private:
  bool IsWanted() const {
    return isSummaryWanted_ || isHistoryWanted_ || !options_.traceFile.empty() || !options_.recordFile.empty() ||
           !options_.reportFile.empty();
  }
  void WriteFiles() const;
  void PrintSummary() const;

  const Options& options_;
  const bool isSummaryWanted_;
  const bool isHistoryWanted_;
  BuildRecord record_;
  std::unique_ptr<BuildObserver> observer_;  // null: nothing is wanted, or nothing can be had
};

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_OBSERVED_BUILD_H_
