// Parses build requests away from the master's message thread.
#ifndef KESTRUN_MASTER_BUILD_REQUEST_HANDLER_H_
#define KESTRUN_MASTER_BUILD_REQUEST_HANDLER_H_

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "app/options.h"
#include "master/build_job.h"
#include "messaging/message.h"
#include "messaging/message_dispatcher.h"
#include "runtime/base/environment.h"
#include "runtime/base/rc_ptr.h"
#include "runtime/files/ini_file.h"
#include "runtime/threads/blocking_queue.h"
#include "runtime/threads/thread.h"

namespace kestrun {

// One thread, "BuildRequestThread", turns each request into a BuildJob and leaves it in a queue, from which the message
// thread fetches it. While the thread has no request, the message thread may parse one itself (TryRequestHere). Job
// numbers follow the order of the requests. A request that can't become a job is refused: its stub gets exit code 1 and
// the reason, and the scheduler never sees it.
class BuildRequestHandler {
 public:
  // Starts the thread. The dispatcher outlives the handler. No setting concerns the handler; the parameter belongs to
  // its interface. `onJob`, if it is not empty, is called each time that the thread has made a job.
  BuildRequestHandler(IniFile* settings, const Options& options, MessageDispatcher* dispatcher,
                      Functor0<void>::Type onJob = {});
  // Stops the thread if Stop has not.
  ~BuildRequestHandler();
  BuildRequestHandler(const BuildRequestHandler&) = delete;
  BuildRequestHandler& operator=(const BuildRequestHandler&) = delete;

  // False if the thread could not be started: nothing will become a job.
  bool HasThread() const { return !threads_.empty(); }

  // Never blocks. From the message thread.
  void SubmitRequest(const rc_ptr<Message>& request);
  // Parses the request within the call, which is faster than waking the thread. False, with nothing done, while the
  // thread has requests that came before. From the message thread.
  bool TryRequestHere(const rc_ptr<Message>& request);
  // The next job that is ready, or an empty pointer; never waits. From the message thread.
  rc_ptr<BuildJob> NextJob();

  // Ends the thread; requests still queued are never parsed. A thread that doesn't end within 30 s ends the process
  // with code 1.
  void Stop();

 private:
  void HandleRequests();
  bool HandleRequest(const rc_ptr<Message>& request);
  rc_ptr<BuildJob> ParseRequest(const rc_ptr<Message>& request);
  rc_ptr<BuildJob> CreateJob(const std::string& tool, const std::string& arguments, const Path& workingDirectory,
                             const std::shared_ptr<const Environment>& environment, u32 flags,
                             const std::string& echoText, const std::string& projectName);
  std::shared_ptr<const Environment> FindEnvironment(const rc_ptr<Message>& request);

  MessageDispatcher* const dispatcher_;
  const Options options_;
  const Functor0<void>::Type onJob_;
  BlockingQueue<rc_ptr<Message>> requests_;  // an empty pointer ends the thread
  std::atomic<u32> unhandled_{0};            // requests that the thread is to handle or handles
  std::vector<rc_ptr<Thread>> threads_;      // constant after construction
  BlockingQueue<rc_ptr<BuildJob>> jobs_;
  // Used by the thread that parses: unhandled_ ensures that the two threads never parse at the same time.
  u32 nextJobId_ = 0;  // number of the last job
  std::shared_ptr<const Environment> lastEnvironment_;
  rc_ptr<Message> lastRequest_;  // the latest request that had lastEnvironment_
  std::atomic<bool> stopped_{false};
};

}  // namespace kestrun

#endif  // KESTRUN_MASTER_BUILD_REQUEST_HANDLER_H_
