#ifndef KESTRUN_CLIENT_ANNOTATIONS_H_
#define KESTRUN_CLIENT_ANNOTATIONS_H_

#include <string>

namespace kestrun {

// The command text without the annotations that only a master understands. The text is cut off at the first "$$C", and
// each "$$I:" and "$$O:" is removed, also one that is formed by the removal of another. The text that follows those
// four characters stays.
std::string StripAnnotations(std::string text);

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_ANNOTATIONS_H_
