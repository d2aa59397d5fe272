// A client's slot in the limit on running jobs of its master.
#ifndef KESTRUN_CLIENT_TOOL_SLOT_H_
#define KESTRUN_CLIENT_TOOL_SLOT_H_

#include <memory>
#include <string>

#include "client/client_slot.h"
#include "platform/local_stream.h"
#include "protocol/slot_request.h"

namespace kestrun {

// What the part of the program that runs ahead of the C library has been answered (frontend/early_main.cc), if it has
// asked: its answer is the process's, and is not asked for again.
inline SlotAnswer earlyAnswer{};

// Asks a master (Extensions/TransparentTools) for a slot: its slot server where the system has local streams, and
// otherwise its table of job slots. The slot belongs to this process and what
// it becomes; it is given back by the end of the process, or of this object if the process lives on. One thread.
class ToolSlot {
 public:
  enum class Outcome {
    kGranted,
    kNoServer,  // no master under this id, or one that hands out no slots
    kStopping,  // the master ends and wants nothing to be run
    kLost,      // the master died while this client waited
  };

  // Waits without a limit. The texts are for the master's log and its observers.
  Outcome Take(const std::string& id, const SlotTexts& texts);
  // Tells the master how the tool has ended, where the master does not see that itself. Times and sizes are -1 where
  // they are not known.
  void NoteEnd(i32 exitCode, std::int64_t cpuUs, std::int64_t peakMemoryBytes) {
    tableSlot_.NoteEnd(exitCode, cpuUs, peakMemoryBytes);
  }

 private:
  Outcome TakeFromServer(const std::string& id, const SlotTexts& texts);
  Outcome TakeFromTable(const std::string& id, const SlotTexts& texts);

  std::unique_ptr<platform::LocalStream> stream_;
  ClientSlot tableSlot_;
};

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_TOOL_SLOT_H_
