#include "runtime/threads/thread_pool.h"

#include <cstdio>

namespace kestrun {

void ReportPoolFailure(const std::string& pool, int worker, const SystemException& failure) {
  // Written in one piece, so that the lines of two workers do not mix.
  const std::string line = "Pool:" + pool + " Job:" + std::to_string(worker) + " : " + failure.what() +
                           ": error=" + std::to_string(failure.GetCode()) + "\n";
  std::fputs(line.c_str(), stderr);
}

}  // namespace kestrun
