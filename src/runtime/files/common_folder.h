// The folder of the settings file, of the crash dumps, and of the logs in "Log" below it.
//
// Any thread may call it. The environment is read by each call, and nothing fails.
#ifndef KESTRUN_RUNTIME_FILES_COMMON_FOLDER_H_
#define KESTRUN_RUNTIME_FILES_COMMON_FOLDER_H_

#include "runtime/files/path.h"

namespace kestrun {

// RV_COMMON_PATH or the system's default, with "DORN\" behind it. The folder may not exist.
Path GetCommonPath();

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_COMMON_FOLDER_H_
