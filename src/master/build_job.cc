#include "master/build_job.h"

namespace kestrun {

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
