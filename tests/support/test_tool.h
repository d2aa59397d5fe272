// System calls of test_tool that the platform layer does not have.
#ifndef KESTRUN_TESTS_SUPPORT_TEST_TOOL_H_
#define KESTRUN_TESTS_SUPPORT_TEST_TOOL_H_

#include <string>
#include <vector>

namespace kestrun::test {

// Starts this program again in the background with WORDS; it keeps the standard streams. MODE is "plain", "group"
// (a process group of its own), "session" (a session of its own) or "daemon" (forked twice in a new session); where
// the system has no such thing the mode is "plain". Gives the new process's id.
unsigned long StartBackground(const std::string& mode, const std::vector<std::string>& words);

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_SUPPORT_TEST_TOOL_H_
