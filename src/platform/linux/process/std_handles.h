// The three standard handles of this process, as GetStdHandle and SetStdHandle have them.
//
// Any thread may call it. The object stays valid even if the handle is closed or replaced meanwhile.
#ifndef KESTRUN_PLATFORM_LINUX_PROCESS_STD_HANDLES_H_
#define KESTRUN_PLATFORM_LINUX_PROCESS_STD_HANDLES_H_

#include <memory>

#include "platform/linux/files/file_object.h"

namespace kestrun::platform {

// The file that standard stream 0, 1 or 2 is now; null if it is closed or was set to nothing.
std::shared_ptr<FileObject> StandardStream(int stream);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_PROCESS_STD_HANDLES_H_
