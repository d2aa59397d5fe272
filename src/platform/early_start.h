// What a program may do ahead of its C library: the kernel enters the program here, and the library's own start follows
// only where this part has not ended the process's stay in the program (cmake/early_start.cmake).
//
// The start of a C library asks the processor for its features and caches, and in a virtual machine each of these
// questions leaves the machine: together they take longer than everything else that a client does. A client's plain
// case needs none of what the library sets up.
//
// Nothing that needs the library may be called here, which a link without it tests (tests/frontend). No function of
// this header changes what the ordinary start finds, but for descriptors that it leaves open.
#ifndef KESTRUN_PLATFORM_EARLY_START_H_
#define KESTRUN_PLATFORM_EARLY_START_H_

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace kestrun::platform::early {

// The program as it was started.
struct Start {
  char** words = nullptr;        // as main gets them, with a null behind the last
  char** environment = nullptr;  // the same
  std::uint32_t user = 0;        // the effective one
};

// Defined by the program, and called before anything else of it. When it returns the program starts in the ordinary
// way.
void Main(const Start& start);

// A text in memory of its user's. What finds no room is cut off.
class Text {
 public:
  Text(char* room, std::size_t size) : room_(room), capacity_(size) {}
  template <std::size_t size>
  explicit Text(char (&room)[size]) : Text(room, size) {}

  Text& operator+=(char c) {
    isCut_ |= size_ == capacity_;
    if (size_ < capacity_) room_[size_++] = c;
    return *this;
  }
  Text& operator+=(std::string_view text) {
    for (const char c : text) *this += c;
    return *this;
  }

  bool IsCut() const { return isCut_; }
  std::string_view View() const { return {room_, size_}; }

 private:
  char* const room_;
  const std::size_t capacity_;
  std::size_t size_ = 0;
  bool isCut_ = false;
};

std::string_view View(const char* text);

// The value of an environment variable; null if it is not set.
const char* FindVariable(const Start& start, const char* name);

// Adds the words, up to the null behind them, as they would stand on the command line (GetCommandLineA).
void AppendCommandLine(const char* const* words, Text& text);

// The current folder's name in `room`, a zero behind it; empty if it finds no room there, or the folder has no name.
std::string_view CurrentFolder(char* room, std::size_t size);

// As in tool_process.h.
std::uint64_t PipeNumber(int standardStream);

// As LocalStream::Connect (local_stream.h), but -1 also if a standard stream is closed, or where the connection takes
// more than the plain case: no folder yet, a folder of one build's own, a name that is no plain one.
int ConnectLocalStream(const Start& start, std::string_view name);
// The three of LocalStream.
bool Send(int stream, std::string_view data);
std::size_t Receive(int stream, void* data, std::size_t size);
void KeepOpen(int stream);
void Close(int stream);

// As BecomeProgram (tool_process.h), but tells no cause: returns if a program that can be run as it stands was not
// found, and has changed nothing.
void BecomeProgram(const Start& start, char* const* words);

}  // namespace kestrun::platform::early

#endif  // KESTRUN_PLATFORM_EARLY_START_H_
