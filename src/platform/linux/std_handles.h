// The three standard handles of this process.
#ifndef KESTRUN_PLATFORM_LINUX_STD_HANDLES_H_
#define KESTRUN_PLATFORM_LINUX_STD_HANDLES_H_

#include <memory>

#include "platform/linux/file_object.h"

namespace kestrun::platform {

// What stands for standard stream 0, 1 or 2 now; null if it is closed or was set to nothing.
std::shared_ptr<FileObject> StandardStream(int stream);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_STD_HANDLES_H_
