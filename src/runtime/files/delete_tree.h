// Deletes a folder with everything in it.
//
// For users of the library; the program itself deletes no folders.
#ifndef KESTRUN_RUNTIME_FILES_DELETE_TREE_H_
#define KESTRUN_RUNTIME_FILES_DELETE_TREE_H_

#include "runtime/files/path.h"

namespace kestrun {

// Goes on after a failure, to delete as much as possible; true only if nothing is left. A link to a folder is deleted
// itself, and what it leads to stays.
bool DeleteTree(const Path& directory);

}  // namespace kestrun

#endif  // KESTRUN_RUNTIME_FILES_DELETE_TREE_H_
