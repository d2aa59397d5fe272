// The whole environment of this process.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_ENVIRONMENT_H_
#define KESTRUN_PLATFORM_LINUX_BASE_ENVIRONMENT_H_

#include <mutex>
#include <string>
#include <vector>

namespace kestrun::platform {

// Excludes changes by SetEnvironmentVariableA for as long as it lives.
class EnvironmentLock {
 public:
  EnvironmentLock();

 private:
  std::lock_guard<std::mutex> lock_;
};

// "NAME=value", in the order in which the environment has them.
std::vector<std::string> EnvironmentEntries();

// The value of NAME; false if there is none.
bool FindVariable(const char* name, std::string& value);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_BASE_ENVIRONMENT_H_
