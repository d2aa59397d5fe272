// FormatMessageA: the system's texts for the error numbers of this layer.
#include <algorithm>
#include <cstring>
#include <string>

#include "platform/api/process_api.h"
#include "platform/api/security_api.h"
#include "platform/api/socket_api.h"
#include "platform/api/sync_api.h"

namespace kestrun::platform {
namespace {

struct ErrorText {
  DWORD error;
  const char* text;
};

constexpr ErrorText kTexts[] = {
    {ERROR_SUCCESS, "The operation completed successfully."},
    {ERROR_INVALID_FUNCTION, "The call makes no sense for this kind of object."},
    {ERROR_FILE_NOT_FOUND, "There is no such file."},
    {ERROR_PATH_NOT_FOUND, "There is no such folder."},
    {ERROR_TOO_MANY_OPEN_FILES, "Too many files are open."},
    {ERROR_ACCESS_DENIED, "Access is denied."},
    {ERROR_INVALID_HANDLE, "The handle is invalid."},
    {ERROR_NOT_ENOUGH_MEMORY, "There is not enough memory, or no process to be had."},
    {ERROR_NO_MORE_FILES, "There are no more files."},
    {31, "A device or the system failed in a way that has no number of its own."},
    {ERROR_SHARING_VIOLATION, "The file is in use by another process."},
    {ERROR_HANDLE_EOF, "The end of the file was reached."},
    {ERROR_NOT_SUPPORTED, "The request is not supported."},
    {ERROR_FILE_EXISTS, "The file exists."},
    {ERROR_INVALID_PARAMETER, "A parameter is wrong."},
    {ERROR_BROKEN_PIPE, "The pipe has ended."},
    {ERROR_DISK_FULL, "There is not enough space on the disk."},
    {ERROR_INSUFFICIENT_BUFFER, "The buffer is too small."},
    {ERROR_INVALID_NAME, "The name is not valid."},
    {ERROR_MOD_NOT_FOUND, "The module could not be found."},
    {ERROR_PROC_NOT_FOUND, "The function could not be found."},
    {ERROR_DIR_NOT_EMPTY, "The folder is not empty."},
    {ERROR_ALREADY_EXISTS, "The object or file exists already."},
    {ERROR_BAD_EXE_FORMAT, "The file is not a program that can be run here."},
    {ERROR_ENVVAR_NOT_FOUND, "There is no such environment variable."},
    {ERROR_FILENAME_EXCED_RANGE, "The file name or the command line is too long."},
    {ERROR_NO_DATA, "The pipe is being closed."},
    {WAIT_TIMEOUT, "The wait timed out."},
    {ERROR_DIRECTORY, "The folder name is not valid."},
    {ERROR_NOT_OWNER, "The mutex belongs to another thread."},
    {ERROR_TOO_MANY_POSTS, "The semaphore's count would pass its limit."},
    {ERROR_FILE_INVALID, "The file is empty or has changed."},
    {ERROR_NO_SYSTEM_RESOURCES, "The system lacks the resources for the call."},
    {ERROR_TIMEOUT, "The wait for a lock took too long."},
    {ERROR_RESOURCE_TYPE_NOT_FOUND, "The file has no such resource."},
    {WSAEINTR, "The call was interrupted."},
    {WSAEWOULDBLOCK, "The socket is not ready; the call would block."},
    {WSAENOTSOCK, "The handle is not a socket."},
    {WSAEADDRINUSE, "The socket address is in use."},
    {WSAEADDRNOTAVAIL, "The socket address is not one of this machine."},
    {WSAECONNRESET, "The connection was reset by the peer."},
    {WSAENOTCONN, "The socket is not connected."},
    {WSAETIMEDOUT, "The peer did not answer in time."},
    {WSAECONNREFUSED, "The connection was refused."},
};

// The text without its line end; empty for a number that has no text.
std::string TextOf(DWORD error) {
  const auto* const found =
      std::find_if(std::begin(kTexts), std::end(kTexts), [&](const ErrorText& entry) { return entry.error == error; });
  return found != std::end(kTexts) ? found->text : "";
}

}  // namespace
}  // namespace kestrun::platform

using namespace kestrun::platform;

DWORD FormatMessageA(DWORD flags, LPCVOID, DWORD messageId, DWORD, LPSTR buffer, DWORD size, void*) {
  const std::string text = TextOf(messageId) + "\r\n";
  if (text.size() == 2) {
    // ERROR_MR_MID_NOT_FOUND: there is no message with that number.
    SetLastError(317);
    return 0;
  }
  if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
    const HLOCAL memory = LocalAlloc(0, std::max<std::size_t>(text.size() + 1, size));
    if (memory == nullptr) return 0;
    std::memcpy(memory, text.c_str(), text.size() + 1);
    std::memcpy(buffer, &memory, sizeof memory);
    return static_cast<DWORD>(text.size());
  }
  if (text.size() >= size) {
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return 0;
  }
  std::memcpy(buffer, text.c_str(), text.size() + 1);
  return static_cast<DWORD>(text.size());
}
