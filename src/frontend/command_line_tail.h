#ifndef KESTRUN_FRONTEND_COMMAND_LINE_TAIL_H_
#define KESTRUN_FRONTEND_COMMAND_LINE_TAIL_H_

#include <string>

namespace kestrun {

// The raw command line without the program's name and the one character behind it, byte for byte. A tool gets its
// arguments from this text, so that they arrive quoted as the user typed them. Empty if nothing follows the name.
std::string GetCommandLineTail(const std::string& commandLine);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_COMMAND_LINE_TAIL_H_
