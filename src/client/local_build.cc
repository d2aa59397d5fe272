#include "client/local_build.h"

#include "app/console.h"
#include "client/annotations.h"
#include "client/echo_stream.h"

namespace kestrun {

namespace {

constexpr int kCtrlBreak = 1;

}  // namespace

int LocalBuild::Run(const Path& toolPath, const std::string& command) {
  rc_ptr<Process> process = new Process("");
  process->SetApplicationPath(toolPath);
  {
    const Lock lock(lock_);
    if (isStopped_) return kNotRun;
    process_ = process;
  }
  // A stop that comes between here and the start of the tool finds no process to interrupt. But the end of this process
  // follows it, which closes the job and so ends the tool.
  rc_ptr<Stream> out = new EchoStream(WriteStandardOutput);
  rc_ptr<Stream> err = new EchoStream(WriteStandardError);
  return process->Run(StripAnnotations(command), out.Get(), err.Get(), Process::OWN_JOB, nullptr, 0, false);
}

void LocalBuild::Stop() {
  rc_ptr<Process> process;
  {
    const Lock lock(lock_);
    isStopped_ = true;
    process = process_;
  }
  if (process && !process->SendCtrlEvent(kCtrlBreak)) process->Terminate();
}

}  // namespace kestrun
