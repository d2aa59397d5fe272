#ifndef KESTRUN_CLIENT_ANNOTATIONS_H_
#define KESTRUN_CLIENT_ANNOTATIONS_H_

#include <string>

namespace kestrun {

// The command text without the annotations that only a master understands: the text is cut at the first "$$C", and each
// "$$I:" and "$$O:" is removed, also one that the removal of another forms. The text behind those four characters
// stays.
std::string StripAnnotations(std::string text);

}  // namespace kestrun

#endif  // KESTRUN_CLIENT_ANNOTATIONS_H_
