// The tool that tests run through kestrun. Its words are commands, run in order, with "," between them:
//
//   print TEXT          TEXT and a line end on the standard output       error TEXT     the same on the standard error
//   args WORD...        each word in brackets on a line of its own (takes all the rest)
//   fill OUT ERR        OUT and ERR bytes of a fixed pattern on the two streams, in alternating blocks
//   env NAME            the variable's value, or "(unset)"               cwd            the working directory
//   pid                 its process id                                   input          how many bytes stdin held
//   await EVENT         waits for a named event                          signal EVENT   signals one
//   spin EVENT          keeps the processor busy until the event is signalled
//   create FILE         makes an empty file                              hold           waits until it is killed
//   sleep MS            waits so many milliseconds
//   note FILE           appends its process id, as a line, to a file
//   background MODE WORD...   starts itself in the background with all the words behind, and prints that one's id
//   crash               dies of an abort                                 exit CODE      ends with that code
#include "support/test_tool.h"

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "platform/host.h"
#include "platform/win32.h"

namespace kestrun::test {
namespace {

using Words = std::vector<std::string>;

void PrintLine(std::FILE* stream, const std::string& text) {
  std::fputs((text + "\n").c_str(), stream);
  std::fflush(stream);
}

// Byte i of a stream: every value occurs, zeros and line ends of all kinds too.
char PatternByte(std::size_t i, unsigned seed) {
  static const char kLineEnds[] = "\r\n\n\r\0\0\r\n";
  if (i % 64 < 8) return kLineEnds[i % 8];
  return static_cast<char>((i * 31 + i / 251 + seed) & 0xFF);
}

void WritePattern(std::FILE* stream, std::size_t from, std::size_t to, unsigned seed) {
  std::string block;
  for (std::size_t i = from; i < to; ++i) block += PatternByte(i, seed);
  std::fwrite(block.data(), 1, block.size(), stream);
}

void Fill(std::size_t outBytes, std::size_t errBytes) {
  constexpr std::size_t kBlock = 60000;
  for (std::size_t at = 0; at < outBytes || at < errBytes; at += kBlock) {
    if (at < outBytes) WritePattern(stdout, at, std::min(outBytes, at + kBlock), 1);
    if (at < errBytes) WritePattern(stderr, at, std::min(errBytes, at + kBlock), 2);
  }
  std::fflush(stdout);
  std::fflush(stderr);
}

HANDLE OpenNamedEvent(const std::string& name) {
  const HANDLE event = OpenEventA(EVENT_MODIFY_STATE | SYNCHRONIZE, FALSE, name.c_str());
  if (event == nullptr) {
    PrintLine(stderr, "test_tool: no event " + name);
    std::exit(98);
  }
  return event;
}

std::size_t CountInput() {
  char block[4096];
  std::size_t total = 0;
  DWORD count = 0;
  while (ReadFile(GetStdHandle(STD_INPUT_HANDLE), block, sizeof block, &count, nullptr) && count > 0) total += count;
  return total;
}

void Spin(HANDLE event) {
  while (WaitForSingleObject(event, 0) != WAIT_OBJECT_0) {
  }
}

[[noreturn]] void Hold() {
  for (;;) Sleep(1000);
}

// Runs the command at words[at]; gives the index behind its last word.
std::size_t RunCommand(const Words& words, std::size_t at) {
  const std::string& command = words[at];
  const auto word = [&](std::size_t n) { return at + n < words.size() ? words[at + n] : std::string(); };
  if (command == "print") return PrintLine(stdout, word(1)), at + 2;
  if (command == "error") return PrintLine(stderr, word(1)), at + 2;
  if (command == "args") {
    for (std::size_t i = at + 1; i < words.size(); ++i) PrintLine(stdout, "[" + words[i] + "]");
    return words.size();
  }
  if (command == "fill") return Fill(std::stoul(word(1)), std::stoul(word(2))), at + 3;
  if (command == "env") {
    const char* const value = std::getenv(word(1).c_str());
    return PrintLine(stdout, value != nullptr ? value : "(unset)"), at + 2;
  }
  if (command == "cwd") return PrintLine(stdout, std::filesystem::current_path().string()), at + 1;
  if (command == "pid") return PrintLine(stdout, std::to_string(GetCurrentProcessId())), at + 1;
  if (command == "input") return PrintLine(stdout, std::to_string(CountInput())), at + 1;
  if (command == "await") return WaitForSingleObject(OpenNamedEvent(word(1)), INFINITE), at + 2;
  if (command == "spin") return Spin(OpenNamedEvent(word(1))), at + 2;
  if (command == "signal") return SetEvent(OpenNamedEvent(word(1))), at + 2;
  if (command == "create") return std::ofstream(word(1)), at + 2;
  if (command == "note") return std::ofstream(word(1), std::ios::app) << GetCurrentProcessId() << '\n', at + 2;
  if (command == "hold") Hold();
  if (command == "sleep") return Sleep(static_cast<DWORD>(std::stoul(word(1)))), at + 2;
  if (command == "background") {
    const Words rest(words.begin() + static_cast<std::ptrdiff_t>(at) + 2, words.end());
    PrintLine(stdout, std::to_string(StartBackground(word(1), rest)));
    return words.size();
  }
  if (command == "crash") std::abort();
  if (command == "exit") std::exit(std::stoi(word(1)));
  PrintLine(stderr, "test_tool: unknown command " + command);
  std::exit(97);
}

// A background command takes all the rest of its own line; "then" ends it, so that the parent can go on.
int RunWords(const Words& words) {
  for (std::size_t at = 0; at < words.size();) {
    if (words[at] == ",") {
      ++at;
      continue;
    }
    std::size_t end = at;
    while (end < words.size() && words[end] != "then") ++end;
    const Words line(words.begin(), words.begin() + static_cast<std::ptrdiff_t>(end));
    at = RunCommand(line, at);
    if (at == end && at < words.size()) ++at;
  }
  return 0;
}

}  // namespace
}  // namespace kestrun::test

int main(int argc, char** argv) {
  kestrun::platform::SetStandardStreamsBinary();
  return kestrun::test::RunWords({argv + 1, argv + argc});
}
