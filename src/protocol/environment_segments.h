// How an environment travels in a build request: one SEG_ENV_VAR for each variable, which holds a SEG_ENV_NAME and a
// SEG_ENV_VALUE. No other code depends on that layout.
#ifndef KESTRUN_PROTOCOL_ENVIRONMENT_SEGMENTS_H_
#define KESTRUN_PROTOCOL_ENVIRONMENT_SEGMENTS_H_

#include <vector>

#include "messaging/message.h"
#include "runtime/base/environment.h"
#include "runtime/base/rc_ptr.h"

namespace kestrun {

// The segments of the variables, in the map's order. Many messages may share them.
std::vector<rc_ptr<Message::Segment>> MakeEnvironmentSegments(const Environment& environment);

// The variables of a message. One that lacks its name or its value is skipped; a later one of a name replaces an
// earlier one.
Environment ReadEnvironment(const Message& message);

// True if the message's variables are exactly these, in the map's order, which is how MakeEnvironmentSegments puts
// them. Faster than reading them; a false only means that they have to be read.
bool HasEnvironment(const Message& message, const Environment& environment);

// True if the variables of both messages are the same segments, as those of two requests of one script are. A false
// only means that they have to be compared.
bool ShareEnvironment(const Message& one, const Message& other);

}  // namespace kestrun

#endif  // KESTRUN_PROTOCOL_ENVIRONMENT_SEGMENTS_H_
