#include "master/build_job.h"

namespace kestrun {

// Called by the journal on other threads. It reads only fields that do not change after the job was parsed.
JobText BuildJob::GetText() const {
  JobText text;
  text.project = projectName;
  text.name = name;
  text.tool = toolPath.GetLeaf();
  text.command = commandLine;
  text.folder = workingDirectory.ToString();
  return text;
}

}  // namespace kestrun
