#ifndef KESTRUN_MASTER_MAKE_FLAGS_H_
#define KESTRUN_MASTER_MAKE_FLAGS_H_

#include <string>

namespace kestrun {

// MAKEFLAGS without the words that name the descriptors of a jobserver's pipe ("--jobserver-auth=3,4", and
// "--jobserver-fds=3,4" of older versions), and without the "-j4" that goes with them: a make that finds that word
// alone warns of it. A tool that the master runs does not have those descriptors. A jobserver that is named by its path
// ("--jobserver-auth=fifo:/tmp/x") can be used from anywhere and stays, and so does what stands behind the word "--",
// which are variables.
std::string WithoutJobserverPipe(const std::string& makeFlags);

}  // namespace kestrun

#endif  // KESTRUN_MASTER_MAKE_FLAGS_H_
