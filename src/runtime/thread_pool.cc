#include "runtime/thread_pool.h"

#include <iostream>

namespace kestrun {

void ReportPoolFailure(const std::string& pool, int worker, const SystemException& failure) {
  // In one piece, so that the lines of two workers do not mix.
  std::cerr << "Pool:" + pool + " Job:" + std::to_string(worker) + " : " + failure.what() +
                   ": error=" + std::to_string(failure.GetCode()) + "\n";
}

}  // namespace kestrun
