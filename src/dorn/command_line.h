// Joins words to one command line.
//
// The C run-time of the program that is started splits the line into the same words. Any thread; nothing fails.
#ifndef KESTRUN_DORN_COMMAND_LINE_H_
#define KESTRUN_DORN_COMMAND_LINE_H_

#include <string>
#include <vector>

namespace kestrun::dorn {

std::string JoinArguments(const std::vector<std::string>& words);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_COMMAND_LINE_H_
