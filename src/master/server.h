#ifndef KESTRUN_MASTER_SERVER_H_
#define KESTRUN_MASTER_SERVER_H_

#include <map>
#include <string>

#include "master/build_job.h"
#include "runtime/base/rc_ptr.h"

namespace kestrun {

// The record of a machine on which jobs run. A master has one, for its own machine.
//
// Owned by the scheduler, and used in the master's message handler only, so that it needs no lock.
class Server : public rc_base {
 public:
  explicit Server(const std::string& serverName) : name(serverName) {}

  const std::string name;
  std::map<u32, rc_ptr<BuildJob>> assignedJobs;  // handed to this server and not yet answered
  u32 completedCount = 0;                        // results taken; part of the record, nothing in the master reads it
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_SERVER_H_
