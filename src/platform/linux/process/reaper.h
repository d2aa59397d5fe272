// The thread that waits for the ends of processes.
//
// One thread in each process that starts or watches others, started with the first descriptor to watch and never ended.
// It sleeps until a supervisor reports or a watched process ends. The functions may be called from any thread.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_REAPER_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_REAPER_H_

#include <memory>

namespace kestrun::platform {

class ReaperClient {
 public:
  virtual ~ReaperClient() = default;

  // The descriptor is readable. The result false ends the watch; OnLetGo follows. Called on the reaper's thread with no
  // lock held, for one client at a time.
  virtual bool OnReadable() = 0;
  // The descriptor is no longer watched and may be closed. This is the reaper's last call.
  virtual void OnLetGo() = 0;
};

// Keeps `client` until its OnReadable gives false; the client keeps the descriptor open until OnLetGo, since a closed
// number can come back as another client's. False with errno if the thread can't be started or the descriptor can't be
// watched.
bool WatchDescriptor(int descriptor, std::shared_ptr<ReaperClient> client);

// Takes a client away without a call of OnLetGo, so that the caller serves it from now on. False if the reaper is
// serving it at this moment, or no longer watches it.
bool UnwatchDescriptor(int descriptor, const ReaperClient* client);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_REAPER_H_
