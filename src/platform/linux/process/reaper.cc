// The reaper's thread: an epoll over the sockets of supervisors and the pidfds of foreign processes.
//
// A thread of its own and not SIGCHLD, because children of the layer are not this process's children but their
// supervisors', and because a signal would interrupt the system calls of whatever thread receives it.
//
// A client may be unwatched by another thread at any moment except while it is served: `served_` marks that one, and
// Unwatch then fails. Without that mark two threads could read from one socket at once.
#include "platform/linux/process/reaper.h"

#include <pthread.h>
#include <signal.h>
#include <sys/epoll.h>

#include <cerrno>
#include <map>
#include <mutex>

#include "platform/linux/base/never_destroyed.h"
#include "platform/linux/files/file_object.h"

namespace kestrun::platform {
namespace {

class Reaper {
 public:
  bool Watch(int descriptor, std::shared_ptr<ReaperClient> client) {
    const std::lock_guard lock(mutex_);
    if (!isStarted_ && !Start()) return false;
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = descriptor;
    clients_[descriptor] = std::move(client);
    if (epoll_ctl(epoll_.get(), EPOLL_CTL_ADD, descriptor, &event) == 0) return true;
    const int error = errno;
    clients_.erase(descriptor);
    errno = error;
    return false;
  }

  bool Unwatch(int descriptor, const ReaperClient* client) {
    const std::lock_guard lock(mutex_);
    const auto found = clients_.find(descriptor);
    if (found == clients_.end() || found->second.get() != client || served_ == client) return false;
    epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
    clients_.erase(found);
    return true;
  }

 private:
  // The thread blocks all signals, which are for the threads of the program. It inherits the mask that is set around
  // its creation.
  bool Start() {
    if (!epoll_) epoll_.Reset(epoll_create1(EPOLL_CLOEXEC));
    if (!epoll_) return false;
    sigset_t all, before;
    sigfillset(&all);
    pthread_sigmask(SIG_SETMASK, &all, &before);
    pthread_t thread;
    const int error = pthread_create(&thread, nullptr, &Reaper::ThreadMain, this);
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
    if (error != 0) {
      errno = error;
      return false;
    }
    pthread_detach(thread);
    isStarted_ = true;
    return true;
  }

  static void* ThreadMain(void* self) {
    static_cast<Reaper*>(self)->Loop();
    return nullptr;
  }

  void Loop() {
    while (true) {
      epoll_event events[16];
      const int count = epoll_wait(epoll_.get(), events, 16, -1);
      for (int i = 0; i < count; ++i) Serve(events[i].data.fd);
    }
  }

  // The descriptor may have been unwatched since epoll_wait returned, in which case its event is ignored.
  void Serve(int descriptor) {
    std::shared_ptr<ReaperClient> client;
    {
      const std::lock_guard lock(mutex_);
      const auto found = clients_.find(descriptor);
      if (found == clients_.end()) return;
      client = found->second;
      served_ = client.get();
    }
    // No lock is held here: the client takes locks of its own and wakes other threads.
    const bool goesOn = client->OnReadable();
    {
      const std::lock_guard lock(mutex_);
      served_ = nullptr;
      if (goesOn) return;
      epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, descriptor, nullptr);
      clients_.erase(descriptor);
    }
    client->OnLetGo();
  }

  std::mutex mutex_;
  bool isStarted_ = false;                                // guarded by mutex_
  std::map<int, std::shared_ptr<ReaperClient>> clients_;  // guarded by mutex_
  const ReaperClient* served_ = nullptr;                  // guarded by mutex_
  FileDescriptor epoll_;                                  // constant once started
};

Reaper& TheReaper() {
  static NeverDestroyed<Reaper> reaper;
  return reaper.get();
}

}  // namespace

bool WatchDescriptor(int descriptor, std::shared_ptr<ReaperClient> client) {
  return TheReaper().Watch(descriptor, std::move(client));
}

bool UnwatchDescriptor(int descriptor, const ReaperClient* client) {
  return TheReaper().Unwatch(descriptor, client);
}

}  // namespace kestrun::platform
