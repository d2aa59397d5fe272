// Short names for jobs, for lines with room for a few words.
//
// Pure functions, for any thread; nothing fails.
#ifndef KESTRUN_PROTOCOL_JOB_LABEL_H_
#define KESTRUN_PROTOCOL_JOB_LABEL_H_

#include <cstddef>
#include <string>

#include "protocol/job_record.h"

namespace kestrun {

// The file that the command works on, without its folders: the first argument that looks like a source, else the
// argument of -o, else the last argument that is no option. Empty if there is none.
std::string GetFileOfJob(const JobText& text);

// The job's own name (-n), else its tool and its file.
std::string GetLabel(const JobText& text);

// One line for a terminal: control characters become "?", and a longer text is cut and ends in "...". Characters are
// counted as UTF-8, each as one column.
std::string FitLine(const std::string& text, std::size_t columns);

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_JOB_LABEL_H_
