// Writes dorn's messages for the user.
//
// Each is one line on the standard error stream, so that standard output has the build's output alone. Any thread.
#ifndef KESTRUN_DORN_REPORT_H_
#define KESTRUN_DORN_REPORT_H_

#include <string>

namespace kestrun::dorn {

void Print(const std::string& text);
void PrintWarning(const std::string& text);
void PrintError(const std::string& text);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_REPORT_H_
