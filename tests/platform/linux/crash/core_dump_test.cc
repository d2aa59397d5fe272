#include <elf.h>
#include <gtest/gtest.h>
#include <signal.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "platform/win32.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

constexpr int kStoppedThreads = 3;
const char* dumpName = nullptr;
// What the dump must hold.
char mark[] = "the mark of this process: 0";

LONG WINAPI WriteDump(EXCEPTION_POINTERS* exception) {
  const HANDLE snapshot = CreateToolhelp32Snapshot(TH32CS_SNAPTHREAD, 0);
  THREADENTRY32 entry{};
  entry.dwSize = sizeof entry;
  int stopped = 0;
  for (BOOL more = Thread32First(snapshot, &entry); more; more = Thread32Next(snapshot, &entry)) {
    if (entry.th32ThreadID == GetCurrentThreadId()) continue;
    const HANDLE thread = OpenThread(THREAD_SUSPEND_RESUME, FALSE, entry.th32ThreadID);
    if (SuspendThread(thread) == 0) ++stopped;
    CloseHandle(thread);
  }
  const HANDLE file = CreateFileA(dumpName, GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, 0, nullptr);
  const auto write = reinterpret_cast<decltype(&MiniDumpWriteDump)>(
      reinterpret_cast<void*>(GetProcAddress(LoadLibraryA("DBGHELP.DLL"), "MiniDumpWriteDump")));
  const MINIDUMP_EXCEPTION_INFORMATION info{GetCurrentThreadId(), exception, FALSE};
  const BOOL written = write(GetCurrentProcess(), GetCurrentProcessId(), file, MiniDumpNormal, &info, nullptr, nullptr);
  ExitProcess(written ? static_cast<UINT>(10 + stopped) : 1);
}

// Deeper than any stack, which the compiler isn't told.
volatile int deepest = 1 << 30;

int Overflow(int depth) {
  volatile char frame[4096];
  frame[0] = static_cast<char>(depth);
  return depth < deepest ? Overflow(depth + 1) + frame[0] : 0;
}

DWORD WINAPI Fail(void* how) {
  const std::string way = static_cast<const char*>(how);
  if (way == "write") *reinterpret_cast<volatile int*>(std::strtoul("16", nullptr, 10)) = 1;
  if (way == "overflow") return static_cast<DWORD>(Overflow(0));
  if (way == "throw") throw 1;
  abort();
}

DWORD WINAPI Wait(void*) {
  for (;;) Sleep(INFINITE);
}

KESTRUN_CHILD(Crashes) {
  dumpName = words[1].c_str();
  mark[sizeof mark - 2] = words[2][0];
  SetUnhandledExceptionFilter(WriteDump);
  // The failing thread makes one of the others: the main thread waits for it.
  for (int i = 1; i < kStoppedThreads; ++i) CreateThread(nullptr, 0, Wait, nullptr, 0, nullptr);
  std::string way = words[0];
  const HANDLE failing = CreateThread(nullptr, 0, Fail, way.data(), 0, nullptr);
  WaitForSingleObject(failing, INFINITE);
  return 0;
}

// In one go, since a dump is large and mostly holes.
std::string ReadWhole(const std::string& name) {
  const HANDLE file = CreateFileA(name.c_str(), GENERIC_READ, FILE_SHARE_READ, nullptr, OPEN_EXISTING, 0, nullptr);
  std::string bytes(GetFileSize(file, nullptr), '\0');
  DWORD read = 0;
  EXPECT_TRUE(ReadFile(file, bytes.data(), static_cast<DWORD>(bytes.size()), &read, nullptr));
  EXPECT_EQ(read, bytes.size());
  CloseHandle(file);
  return bytes;
}

// The parts of a core file that a debugger starts from.
struct Core {
  explicit Core(const std::string& bytes) {
    if (bytes.size() < sizeof head) return;
    std::memcpy(&head, bytes.data(), sizeof head);
    for (std::size_t i = 0; i < head.e_phnum; ++i) {
      Elf64_Phdr part;
      std::memcpy(&part, bytes.data() + head.e_phoff + i * sizeof part, sizeof part);
      EXPECT_LE(part.p_offset + part.p_filesz, bytes.size());
      if (part.p_type == PT_NOTE) CountNotes(bytes.substr(part.p_offset, part.p_filesz));
    }
  }

  Elf64_Ehdr head{};
  int threads = 0;
  int signal = 0;  // of the first thread

 private:
  void CountNotes(const std::string& notes) {
    for (std::size_t at = 0; at < notes.size();) {
      Elf64_Nhdr note;
      std::memcpy(&note, notes.data() + at, sizeof note);
      const std::size_t content = at + sizeof note + (note.n_namesz + 3) / 4 * 4;
      if (note.n_type == NT_PRSTATUS && threads++ == 0) std::memcpy(&signal, notes.data() + content, sizeof signal);
      at = content + (note.n_descsz + 3) / 4 * 4;
    }
  }
};

TEST(CoreDump, EveryWayToFailLeavesADumpOfAllThreads) {
#ifdef __SANITIZE_THREAD__
  GTEST_SKIP() << "the thread sanitizer keeps signals back from threads that sleep, so that none can be stopped";
#endif
  const struct {
    const char* way;
    int signal;
  } kWays[] = {{"write", SIGSEGV}, {"overflow", SIGSEGV}, {"throw", SIGABRT}, {"abort", SIGABRT}};
  for (const auto& c : kWays) {
    TempFolder folder;
    Child child = Child::Self("Crashes", {c.way, folder.File("dump"), "7"});
    ASSERT_EQ(child.Wait(), 10 + kStoppedThreads) << c.way << child.Errors();
    const std::string bytes = ReadWhole(folder.File("dump"));
    const Core core(bytes);
    EXPECT_EQ(core.head.e_type, ET_CORE) << c.way;
    EXPECT_EQ(core.threads, kStoppedThreads + 1) << c.way;
    EXPECT_EQ(core.signal, c.signal) << c.way;
    EXPECT_NE(bytes.find("the mark of this process: 7"), std::string::npos) << c.way;
  }
}

LONG WINAPI LookElsewhere(EXCEPTION_POINTERS*) {
  return EXCEPTION_CONTINUE_SEARCH;
}
LONG WINAPI FailAgain(EXCEPTION_POINTERS*) {
  abort();
}

KESTRUN_CHILD(FailsUnderAFilter) {
  std::string way = "abort";
  SetUnhandledExceptionFilter(words[0] == "search" ? LookElsewhere : words[0] == "again" ? FailAgain : nullptr);
  Fail(way.data());
  return 0;
}

TEST(CoreDump, WithoutAnAnswerTheProcessDiesOfItsSignal) {
  for (const char* filter : {"search", "again", "none"}) {
    EXPECT_EQ(Child::Self("FailsUnderAFilter", {filter}).Wait(), 128 + SIGABRT) << filter;
  }
}

}  // namespace
}  // namespace kestrun::test
