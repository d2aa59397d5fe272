#include "dorn/output_file.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "platform/host.h"

namespace kestrun::dorn {

namespace {

// False with errno set.
bool Write(std::FILE* file, const std::string& text) {
  if (file == nullptr) return false;
  const bool isWritten = std::fwrite(text.data(), 1, text.size(), file) == text.size();
  // Closing may change errno, and may itself be the step that finds the disk full.
  const int error = errno;
  const bool isClosed = std::fclose(file) == 0;
  if (!isWritten) errno = error;
  return isWritten && isClosed;
}

bool Fail(const Path& file, std::string& error) {
  error = "cannot write " + file.ToString() + ": " + std::strerror(errno);
  return false;
}

}  // namespace

bool WriteOutputFile(const Path& file, const std::string& text, std::string& error) {
  return Write(platform::OpenStdio(file.ToString(), "wb"), text) || Fail(file, error);
}

bool CanWriteOutputFile(const Path& file, std::string& error) {
  if (!platform::WhyNoFile(file.ToString()).empty()) return true;
  return Write(platform::OpenStdio(file.ToString(), "ab"), "") || Fail(file, error);
}

}  // namespace kestrun::dorn
