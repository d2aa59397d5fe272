#ifndef KESTRUN_STUBS_ANNOTATIONS_H_
#define KESTRUN_STUBS_ANNOTATIONS_H_

#include <string>

namespace kestrun {

// The command text as the tool itself may see it: everything from the first "$$C" on is cut, and each "$$I:" and
// "$$O:" goes, also one that the removal of another forms. What stands behind those four characters stays.
std::string StripAnnotations(std::string text);

}  // namespace kestrun

#endif  // KESTRUN_STUBS_ANNOTATIONS_H_
