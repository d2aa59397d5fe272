// Winsock's select, as a poll. Its sets are arrays of sockets, so neither the numbers of sockets nor those of
// descriptors are bounded, as they are in the C library's select.
//
// Two things differ from poll. A socket that another thread closes ends the wait with WSAENOTSOCK: closesocket shuts
// the descriptor down, which wakes the poll. And a failed connection attempt is an exception, while poll reports it as
// readable and writable.
#include <poll.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <ctime>
#include <memory>

#include "platform/api/time_api.h"
#include "platform/linux/sockets/socket_object.h"

namespace kestrun::platform {

namespace {

enum class Interest { kRead, kWrite, kExceptional };

// One socket of one set. A socket in two sets has two entries and is polled twice, which is cheaper than looking for
// such pairs.
struct Entry {
  std::shared_ptr<SocketObject> object;
  Interest interest;
};

constexpr std::size_t kMostEntries = std::size_t{3} * FD_SETSIZE;

class Waiter {
 public:
  // False with WSAENOTSOCK if there is a socket that doesn't exist.
  bool Add(const fd_set* set, Interest interest) {
    if (set == nullptr) return true;
    for (unsigned i = 0; i < set->fd_count; ++i) {
      auto object = LookUpSocket(set->fd_array[i]);
      if (!object) return false;
      const auto events = static_cast<short>(interest == Interest::kRead    ? POLLIN
                                             : interest == Interest::kWrite ? POLLOUT
                                                                            : POLLPRI);
      polls_[count_] = {object->Descriptor(), events, 0};
      entries_[count_++] = {std::move(object), interest};
    }
    return true;
  }

  bool IsEmpty() const { return count_ == 0; }

  // How many are ready, 0 after the time is over, SOCKET_ERROR with the last error set.
  int Wait(const timeval* timeout);

  // Leaves in `set` the sockets that are ready. The sets must come in the order of Add.
  void Report(fd_set* set);

 private:
  static constexpr std::int64_t kForever = -1;

  bool IsReady(std::size_t index);
  bool AnyClosed() const;

  Entry entries_[kMostEntries];
  pollfd polls_[kMostEntries];
  bool ready_[kMostEntries] = {};
  std::size_t count_ = 0;
  std::size_t reported_ = 0;
};

int Waiter::Wait(const timeval* timeout) {
  // An entry that poll reports but that is not ready for select would be reported again at once, so it is no longer
  // polled. Its closing can't wake the poll then, so the wait is cut into slices and closed sockets are looked for
  // after each.
  constexpr std::int64_t kSliceMs = 500;
  bool someAreOut = false;
  const std::int64_t limit = timeout == nullptr ? kForever : timeout->tv_sec * 1000 + (timeout->tv_usec + 999) / 1000;
  const std::int64_t start = static_cast<std::int64_t>(GetTickCount64());
  for (;;) {
    const std::int64_t spent = static_cast<std::int64_t>(GetTickCount64()) - start;
    std::int64_t wait = limit == kForever ? kForever : std::max<std::int64_t>(limit - spent, 0);
    if (someAreOut && (wait == kForever || wait > kSliceMs)) wait = kSliceMs;
    const int result = poll(polls_, count_, static_cast<int>(std::min<std::int64_t>(wait, INT32_MAX)));
    if (result < 0 && errno != EINTR) {
      WSASetLastError(WinsockErrorFromErrno(errno));
      return SOCKET_ERROR;
    }
    if (AnyClosed()) {
      WSASetLastError(WSAENOTSOCK);
      return SOCKET_ERROR;
    }
    int readyCount = 0;
    for (std::size_t i = 0; result > 0 && i < count_; ++i) {
      if (polls_[i].fd < 0 || polls_[i].revents == 0) continue;
      ready_[i] = IsReady(i);
      if (ready_[i]) ++readyCount;
      if (ready_[i]) continue;
      polls_[i].fd = -1;
      someAreOut = true;
    }
    if (readyCount > 0) return readyCount;
    const bool isOver = limit != kForever && static_cast<std::int64_t>(GetTickCount64()) - start >= limit;
    if (isOver) return 0;
  }
}

bool Waiter::IsReady(std::size_t index) {
  SocketObject& object = *entries_[index].object;
  const short events = polls_[index].revents;
  const bool failed = (events & (POLLERR | POLLHUP)) != 0;
  if (object.IsConnecting()) {
    // A failed attempt counts as an exception, and not as readable or writable.
    if (failed) return entries_[index].interest == Interest::kExceptional;
    if ((events & POLLOUT) != 0) object.SetConnecting(false);
  }
  if (entries_[index].interest == Interest::kExceptional) return (events & POLLPRI) != 0;
  return failed || (events & (POLLIN | POLLOUT)) != 0;
}

bool Waiter::AnyClosed() const {
  for (std::size_t i = 0; i < count_; ++i) {
    if (entries_[i].object->IsClosed()) return true;
  }
  return false;
}

void Waiter::Report(fd_set* set) {
  if (set == nullptr) return;
  unsigned kept = 0;
  for (unsigned i = 0; i < set->fd_count; ++i) {
    if (ready_[reported_++]) set->fd_array[kept++] = set->fd_array[i];
  }
  set->fd_count = kept;
}

}  // namespace

void FD_SET(SOCKET socket, fd_set* set) {
  if (FD_ISSET(socket, set) || set->fd_count >= FD_SETSIZE) return;
  set->fd_array[set->fd_count++] = socket;
}

void FD_CLR(SOCKET socket, fd_set* set) {
  unsigned kept = 0;
  for (unsigned i = 0; i < set->fd_count; ++i) {
    if (set->fd_array[i] != socket) set->fd_array[kept++] = set->fd_array[i];
  }
  set->fd_count = kept;
}

int __WSAFDIsSet(SOCKET socket, fd_set* set) {
  for (unsigned i = 0; i < set->fd_count; ++i) {
    if (set->fd_array[i] == socket) return 1;
  }
  return 0;
}

int select(int, fd_set* read, fd_set* write, fd_set* exceptional, timeval* timeout) {
  Waiter waiter;
  if (!waiter.Add(read, Interest::kRead) || !waiter.Add(write, Interest::kWrite) ||
      !waiter.Add(exceptional, Interest::kExceptional)) {
    return SOCKET_ERROR;
  }
  if (waiter.IsEmpty()) {
    WSASetLastError(WSAEINVAL);
    return SOCKET_ERROR;
  }
  const int ready = waiter.Wait(timeout);
  if (ready == SOCKET_ERROR) return ready;
  waiter.Report(read);
  waiter.Report(write);
  waiter.Report(exceptional);
  return ready;
}

}  // namespace kestrun::platform
