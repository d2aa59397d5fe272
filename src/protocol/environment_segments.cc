#include "protocol/environment_segments.h"

#include <string>

#include "protocol/protocol.h"

namespace kestrun {

namespace {

bool ReadNested(const Message::Segment& variable, u32 type, std::string& out) {
  const rc_ptr<Message::Segment> segment = variable.FindNested(type);
  return segment && GetValue(*segment, out);
}

bool HoldsText(const Message::Segment& variable, u32 type, const std::string& text) {
  const rc_ptr<Message::Segment> segment = variable.FindNested(type);
  return segment && segment->GetText() == text;
}

}  // namespace

std::vector<rc_ptr<Message::Segment>> MakeEnvironmentSegments(const Environment& environment) {
  std::vector<rc_ptr<Message::Segment>> variables;
  variables.reserve(environment.size());
  // The variables of a request are some forty segments; the requests of one script share them.
  for (const auto& [name, value] : environment) {
    rc_ptr<Message::Segment> variable = new Message::Segment(SEG_ENV_VAR);
    variable->AddNested(Message::Segment::FromString(SEG_ENV_NAME, name).Get());
    variable->AddNested(Message::Segment::FromString(SEG_ENV_VALUE, value).Get());
    variables.push_back(variable);
  }
  return variables;
}

Environment ReadEnvironment(const Message& message) {
  Environment environment;
  for (u32 i = 0; i < message.GetSegmentCount(); ++i) {
    const rc_ptr<Message::Segment> segment = message.GetSegment(i);
    if (segment->GetType() != SEG_ENV_VAR) continue;
    std::string name;
    std::string value;
    if (ReadNested(*segment, SEG_ENV_NAME, name) && ReadNested(*segment, SEG_ENV_VALUE, value)) {
      environment[name] = value;
    }
  }
  return environment;
}

bool ShareEnvironment(const Message& one, const Message& other) {
  if (one.GetSegmentCount() != other.GetSegmentCount()) return false;
  for (u32 i = 0; i < one.GetSegmentCount(); ++i) {
    const rc_ptr<Message::Segment> segment = one.GetSegment(i);
    const rc_ptr<Message::Segment> counterpart = other.GetSegment(i);
    const bool isVariable = segment->GetType() == SEG_ENV_VAR || counterpart->GetType() == SEG_ENV_VAR;
    if (isVariable && segment.Get() != counterpart.Get()) return false;
  }
  return true;
}

bool HasEnvironment(const Message& message, const Environment& environment) {
  // Both are in the map's order, so one pass compares them, without a copy.
  auto expected = environment.begin();
  for (u32 i = 0; i < message.GetSegmentCount(); ++i) {
    const rc_ptr<Message::Segment> segment = message.GetSegment(i);
    if (segment->GetType() != SEG_ENV_VAR) continue;
    if (expected == environment.end() || !HoldsText(*segment, SEG_ENV_NAME, expected->first) ||
        !HoldsText(*segment, SEG_ENV_VALUE, expected->second)) {
      return false;
    }
    ++expected;
  }
  return expected == environment.end();
}

}  // namespace kestrun
