#ifndef KESTRUN_MASTER_MAKE_FLAGS_H_
#define KESTRUN_MASTER_MAKE_FLAGS_H_

#include <string>

namespace kestrun {

// Removes a jobserver's pipe from the text of MAKEFLAGS, because a tool that the master runs does not have the pipe's
// descriptors.
//
// Removed are the words that name the descriptors ("--jobserver-auth=3,4", and "--jobserver-fds=3,4" of older versions)
// and the "-j4" that goes with them: a make that finds that word alone warns of it. A jobserver that is named by its
// path ("--jobserver-auth=fifo:/tmp/x") can be used from anywhere and stays. So do the variables, which follow the word
// "--". Any thread.
std::string WithoutJobserverPipe(const std::string& makeFlags);

}  // namespace kestrun

#endif  // KESTRUN_MASTER_MAKE_FLAGS_H_
