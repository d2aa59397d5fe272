// Lookups in a list of segments: that of a message, or of a container.
//
// Linear searches, since a list has some forty entries at most in practice. Null if there is no such segment.
#ifndef KESTRUN_MESSAGING_SEGMENT_LIST_H_
#define KESTRUN_MESSAGING_SEGMENT_LIST_H_

#include <vector>

#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"

namespace kestrun::detail {

template <class T>
using SegmentList = std::vector<rc_ptr<T>>;

template <class T>
rc_ptr<T> At(const SegmentList<T>& list, u32 index) {
  return index < list.size() ? list[index] : nullptr;
}

// The occurrence-th (from 0) segment of this type.
template <class T>
rc_ptr<T> Find(const SegmentList<T>& list, u32 type, u32 occurrence) {
  for (const auto& segment : list) {
    if (segment->GetType() == type && occurrence-- == 0) return segment;
  }
  return nullptr;
}

}  // namespace kestrun::detail

#endif  // KESTRUN_MESSAGING_SEGMENT_LIST_H_
