// Lists of segments, of a message and of a segment alike: null for what is not there.
#ifndef KESTRUN_MESSAGING_SEGMENT_LIST_H_
#define KESTRUN_MESSAGING_SEGMENT_LIST_H_

#include <vector>

#include "messaging/message.h"
#include "runtime/rc_ptr.h"
#include "runtime/types.h"

namespace kestrun::detail {

using SegmentList = std::vector<rc_ptr<Message::Segment>>;

inline rc_ptr<Message::Segment> At(const SegmentList& list, u32 index) {
  return index < list.size() ? list[index] : nullptr;
}

inline rc_ptr<Message::Segment> Find(const SegmentList& list, u32 type, u32 occurrence) {
  for (const auto& segment : list) {
    if (segment->GetType() == type && occurrence-- == 0) return segment;
  }
  return nullptr;
}

}  // namespace kestrun::detail

#endif  // KESTRUN_MESSAGING_SEGMENT_LIST_H_
