#ifndef KESTRUN_FRONTEND_COMMAND_LINE_TAIL_H_
#define KESTRUN_FRONTEND_COMMAND_LINE_TAIL_H_

#include <string>

namespace kestrun {

// The raw command line less the program's name and the one character behind it, byte for byte.
std::string GetCommandLineTail(const std::string& commandLine);

}  // namespace kestrun

#endif  // KESTRUN_FRONTEND_COMMAND_LINE_TAIL_H_
