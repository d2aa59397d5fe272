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
  const int error = errno;
  const bool isClosed = std::fclose(file) == 0;
  if (!isWritten) errno = error;
  return isWritten && isClosed;
}

}  // namespace

bool WriteOutputFile(const Path& file, const std::string& text, std::string& error) {
  if (Write(platform::OpenStdio(file.ToString(), "wb"), text)) return true;
  error = "cannot write " + file.ToString() + ": " + std::strerror(errno);
  return false;
}

}  // namespace kestrun::dorn
