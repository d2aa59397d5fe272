// A client's side of all communication with its master.
#ifndef KESTRUN_CLIENT_MASTER_CONNECTION_H_
#define KESTRUN_CLIENT_MASTER_CONNECTION_H_

#include <functional>
#include <string>
#include <vector>

#include "app/options.h"
#include "client/client_slot.h"
#include "messaging/ipc_channel.h"
#include "messaging/message.h"
#include "runtime/base/critical_section.h"
#include "runtime/files/ini_file.h"
#include "runtime/files/path.h"

namespace kestrun {

// Admission, the channel, and the build requests that are sent on it. The client slot is held until the destructor
// runs.
//
// Owned by a client stub. The main thread opens, waits, builds requests, connects and receives. Send may come from
// another thread once Connect has succeeded; Stop and IsStopped may come from any thread at any time.
//
// A client that was started by a job of the same master waits for other clients while its job occupies a thread of the
// master, and may wait for ever. After ten seconds of waiting, for admission or for a result, it prints a warning once.
//
// Failures are bool results or empty messages, and reported as error lines on the standard error stream where the
// operation says so.
class MasterConnection {
 public:
  // How long a client in a job of its own master waits before that warning.
  static constexpr u32 kNestedNoticeMs = 10000;

  // The settings and the options outlive the connection.
  MasterConnection(std::string id, IniFile& settings, const Options& options, u32 nestedNoticeMs = kNestedNoticeMs);

  // False if there is no master; the last error is that of looking for it. Writes nothing.
  bool OpenClientAccess();

  // The texts of waiting for admission, for the user and for the log; the client stubs have different ones.
  struct WaitTexts {
    std::string stillWaiting;  // a whole line, without its end
    std::string timedOut;      // what stands behind "KESTRUN: error: "
    std::string fieldName;     // the log field
    std::string fieldValue;
  };
  struct WaitLimits {
    u32 sliceMs = 120000;
    u32 totalMs = 3600000;
  };
  // Waits for admission in slices, and writes the waiting line after each slice without admission. False, after an
  // error line, if the total time is over or the master has ended.
  bool WaitForAccess(const WaitTexts& texts, const WaitLimits& limits);

  // A MSG_BUILD_REQUEST for one tool, with response files expanded, the current directory, this process's whole
  // environment, and the job's name, flags and timeout from the options.
  rc_ptr<Message> BuildRequest(const Path& toolPath, const std::string& toolArgs, const std::string& project);

  // Connects to the master if that has not happened yet. False, after a line that counts the running instances, if it
  // fails.
  bool Connect();
  // Connects and sends. False after an error line; a channel that failed is dropped.
  bool Send(const rc_ptr<Message>& message);
  // The next message; a timeout of -1 waits without limit. Empty if the time is over, or if there is no working
  // channel.
  rc_ptr<Message> Receive(int timeoutMs);
  // A message that was read together with an earlier one; empty if there is none. Does not wait.
  rc_ptr<Message> ReceiveBuffered();

  // Closes the channel, which ends a Receive that is under way.
  void Stop();
  // True once Stop was called: failures from then on are its consequence and need no report.
  bool IsStopped();

 private:
  // A report that is made once in a long wait, and after how long.
  struct Notice {
    u32 afterMs;
    std::function<void()> tell;
  };
  // The notices for a wait, the earliest first. `thing` is what is waited for, for the log.
  std::vector<Notice> ListNotices(const char* thing);
  // As ClientSlot::Wait, with the notices on the way.
  ClientSlot::Outcome WaitForSlot(u32 limitMs);
  void WarnOfNesting();
  void AddEnvironment(Message& request);
  // The channel; null before Connect and after Stop.
  rc_ptr<IpcChannel> GetChannel();

  const std::string id_;
  IniFile& settings_;
  const Options& options_;
  const u32 nestedNoticeMs_;

  // Main thread only.
  ClientSlot slot_;
  bool warnsOfNesting_;                                // until it has
  std::vector<rc_ptr<Message::Segment>> environment_;  // shared by all requests, of which it is the largest part

  CriticalSection lock_;  // guards the two below; not held while the channel is used
  rc_ptr<IpcChannel> channel_;
  bool isStopped_ = false;
};

// The project of the client's jobs: KESTRUN_PROJECT if it is set, else the project of the options.
std::string ChooseProject(const Options& options);

// False, after an error line, if the path of the working directory is too long to be sent (260 bytes or more), or the
// directory has been deleted. A request without a directory would run its tool in the master's.
bool HasSendableDirectory();

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_MASTER_CONNECTION_H_
