#include <cstdio>

#include "dorn/options.h"
#include "dorn/report.h"
#include "dorn/session.h"
#include "runtime/exception.h"
#include "runtime/system_utilities.h"

int main(int argc, char** argv) {
  using namespace kestrun;
  dorn::Options options;
  std::string error;
  if (!dorn::ParseOptions({argv + 1, argv + argc}, options, error)) {
    dorn::PrintError(error);
    std::fputs(dorn::GetUsage(), stderr);
    return dorn::kExitFailure;
  }
  if (options.showHelp) {
    std::fputs(dorn::GetUsage(), stdout);
    return 0;
  }
  if (options.showVersion) {
    std::puts(GetVersionString().c_str());
    return 0;
  }
  try {
    return dorn::RunSession(options);
  } catch (const SystemException& exception) {
    dorn::PrintError(std::string(exception.what()) + " (error " + std::to_string(exception.GetCode()) + ")");
    return dorn::kExitFailure;
  }
}
