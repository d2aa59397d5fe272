// The status of files in Win32 terms: attributes, times and sizes.
#ifndef KESTRUN_PLATFORM_LINUX_FILES_FILE_STATUS_H_
#define KESTRUN_PLATFORM_LINUX_FILES_FILE_STATUS_H_

#include <string>

#include "platform/api/file_api.h"

namespace kestrun::platform {

// The status of what `name` (in system form) leads to; false with errno set.
bool GetFileStatus(const std::string& name, WIN32_FILE_ATTRIBUTE_DATA& data);

// The same of an open descriptor.
bool GetFileStatus(int descriptor, WIN32_FILE_ATTRIBUTE_DATA& data);

// The error number for a call on `name` that failed with errno `error`: a missing file is ERROR_FILE_NOT_FOUND where
// its folder exists, and ERROR_PATH_NOT_FOUND where that is missing too.
DWORD NameError(const std::string& name, int error);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_FILES_FILE_STATUS_H_
