#include "frontend/usage.h"

#include "app/console.h"
#include "runtime/files/version_string.h"

namespace kestrun {

namespace {

// The options of the integration (-s, -master, -es, -er, -ef, -id) are not for users, and so not told here.
constexpr const char* kUsageText =
    "usage: Kestrun [options] <tool> [args]\n"
    "Options:\n"
    "   --help          - print this message and exit\n"
    "   --version       - print version information and exit\n"
    "   -v              - verbose warnings\n"
    "   -t <timeout>    - timeout of job in minutes\n"
    "   -n <name>       - name of the job (for display in UI)\n"
    "   -ch             - show cache hits\n"
    "   -chx            - show cache hits with extra information\n"
    "   -m <marker>     - use <marker> instead of $ as the special character\n"
    "   -na             - do not use alternative (slower) dependency-tracking\n"
    "   -aa             - always use alternative dependency tracking for problematic files\n"
    "   -wa             - warn about use of alternative (slower) dependency-tracking\n"
    "   -wi             - warn about use of unresolvable #include statements\n"
    "   -gt             - allow generic tools (those without tool-definitions)\n"
    "   -l              - schedules the job locally\n"
    "   -p <name>       - the name of the project this job or script belongs to\n"
    "   -k              - keep going on errors\n"
    "   -di             - prints out the discovered dependency tree\n"
    "   -e              - expand environment variables in scripts\n";

}  // namespace

void PrintUsage() {
  WriteStandardOutput(GetVersionString() + "\n" + kUsageText);
}

}  // namespace kestrun
