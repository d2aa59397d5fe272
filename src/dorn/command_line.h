// Words as one command line, so that the C run-time of the program that is started splits it into the same words.
#ifndef KESTRUN_DORN_COMMAND_LINE_H_
#define KESTRUN_DORN_COMMAND_LINE_H_

#include <string>
#include <vector>

namespace kestrun::dorn {

std::string JoinArguments(const std::vector<std::string>& words);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_COMMAND_LINE_H_
