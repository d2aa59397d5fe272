// What dorn says to the user: single lines on the standard error stream, so that the build's output stays its own.
#ifndef KESTRUN_DORN_REPORT_H_
#define KESTRUN_DORN_REPORT_H_

#include <string>

namespace kestrun::dorn {

void Print(const std::string& text);
void PrintWarning(const std::string& text);
void PrintError(const std::string& text);

}  // namespace kestrun::dorn

#endif  // KESTRUN_DORN_REPORT_H_
