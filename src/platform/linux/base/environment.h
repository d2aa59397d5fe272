// The environment of this process, read and changed under one lock.
//
// Any thread may call everything. A value is copied out under the lock, because the C library may move it when another
// thread sets a variable. None of the functions fails.
#ifndef KESTRUN_PLATFORM_LINUX_BASE_ENVIRONMENT_H_
#define KESTRUN_PLATFORM_LINUX_BASE_ENVIRONMENT_H_

#include <mutex>
#include <string>
#include <vector>

namespace kestrun::platform {

// Keeps SetEnvironmentVariableA from changing the environment as long as this object lives, for calls that read
// `environ` itself.
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
