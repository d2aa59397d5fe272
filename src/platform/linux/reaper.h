// The thread that learns of the ends of processes.
//
// One thread a process, started with the first descriptor to watch and never ended; it sleeps until a supervisor
// reports or a watched process ends.
#ifndef KESTRUN_PLATFORM_LINUX_REAPER_H_
#define KESTRUN_PLATFORM_LINUX_REAPER_H_

#include <memory>

namespace kestrun::platform {

class ReaperClient {
 public:
  virtual ~ReaperClient() = default;

  // The descriptor can be read. False when there is nothing more to wait for; the client is then let go. Called on the
  // reaper's thread, for one client at a time.
  virtual bool OnReadable() = 0;
  // The descriptor is watched no more and may be closed. The last call.
  virtual void OnLetGo() = 0;
};

// Keeps CLIENT until its OnReadable gives false; the client keeps the descriptor open until OnLetGo, since a number
// that is free can come back as another client's. False with errno set if the thread can't be had.
bool WatchDescriptor(int descriptor, std::shared_ptr<ReaperClient> client);

// Takes a client away without its OnLetGo, so that the caller serves it from here on. False if the reaper is just
// serving it, or has let it go.
bool UnwatchDescriptor(int descriptor, const ReaperClient* client);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_REAPER_H_
