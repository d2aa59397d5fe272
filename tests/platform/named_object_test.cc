#include <gtest/gtest.h>

#include <cstring>

#include "platform/host.h"
#include "platform/win32.h"
#include "scoped_handle.h"
#include "support/child.h"
#include "support/names.h"

namespace kestrun::test {
namespace {

// The number of handles to the object, asked for as the transport does it: 1 if only this handle exists. 0 on failure.
ULONG HandleCount(HANDLE handle) {
  using Query = LONG(NTAPI*)(HANDLE, int, PVOID, ULONG, ULONG*);
  const FARPROC found = GetProcAddress(LoadLibraryA("ntdll.dll"), "NtQueryObject");
  const auto query = reinterpret_cast<Query>(reinterpret_cast<void (*)()>(found));
  ULONG answer[14] = {};
  return query && query(handle, 0, answer, sizeof answer, nullptr) == 0 ? answer[2] : 0;
}

enum Kind { kEvent, kMutex, kSemaphore, kMapping };
constexpr Kind kKinds[] = {kEvent, kMutex, kSemaphore, kMapping};

HANDLE Create(Kind kind, const std::string& name) {
  switch (kind) {
    case kEvent:
      return CreateEventA(nullptr, FALSE, FALSE, name.c_str());
    case kMutex:
      return CreateMutexA(nullptr, FALSE, name.c_str());
    case kSemaphore:
      return CreateSemaphoreA(nullptr, 1, 1, name.c_str());
    default:
      return CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, 4096, name.c_str());
  }
}

HANDLE Open(Kind kind, const std::string& name) {
  switch (kind) {
    case kEvent:
      return OpenEventA(EVENT_ALL_ACCESS, FALSE, name.c_str());
    case kMutex:
      return OpenMutexA(MUTEX_ALL_ACCESS, FALSE, name.c_str());
    case kSemaphore:
      return OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, name.c_str());
    default:
      return OpenFileMappingA(FILE_MAP_ALL_ACCESS, FALSE, name.c_str());
  }
}

TEST(NamedObject, ForeignCharactersAndLongNamesStayDistinct) {
  const std::string base = UniqueName();
  const std::string stem = base + std::string(250 - base.size(), 'x');
  ScopedHandle objects[] = {Create(kEvent, base + "/a b"), Create(kEvent, base + "/a+b"), Create(kEvent, stem + "1"),
                            Create(kEvent, stem + "2")};
  for (const ScopedHandle& object : objects) {
    ASSERT_TRUE(object);
    EXPECT_EQ(HandleCount(object), 1u);
  }
  ScopedHandle second = Open(kEvent, stem + "2");
  EXPECT_EQ(HandleCount(objects[2]), 1u);
  EXPECT_EQ(HandleCount(objects[3]), 2u);
}

TEST(NamedObject, ExistsFromTheFirstHandleToTheLastAndTheCountTellsOfEveryOther) {
  for (const Kind kind : kKinds) {
    const std::string name = UniqueName();
    EXPECT_FALSE(Open(kind, name));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    ScopedHandle made = Create(kind, name);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
    EXPECT_EQ(HandleCount(made), 1u);
    ScopedHandle second = Create(kind, name);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_ALREADY_EXISTS});
    EXPECT_GT(HandleCount(made), 1u);
    EXPECT_GT(HandleCount(second), 1u);
    second.Close();
    EXPECT_EQ(HandleCount(made), 1u);
    HANDLE copy = nullptr;
    ASSERT_TRUE(
        DuplicateHandle(GetCurrentProcess(), made, GetCurrentProcess(), &copy, 0, FALSE, DUPLICATE_SAME_ACCESS));
    EXPECT_GT(HandleCount(made), 1u);
    made.Close();
    EXPECT_EQ(HandleCount(copy), 1u);
    CloseHandle(copy);
    EXPECT_FALSE(Open(kind, name));
  }
}

KESTRUN_CHILD(HoldsObjects) {
  ScopedHandle handles[4];
  for (const Kind kind : kKinds) handles[kind] = Create(kind, words[0] + std::to_string(kind));
  Say("ready");
  AwaitLine();
  return 0;
}

TEST(NamedObject, DiesWithAKilledProcessAndTheCountTellsAtOnce) {
  const std::string name = UniqueName();
  Child holder = Child::Self("HoldsObjects", {name});
  ASSERT_EQ(holder.ReadLine(), "ready");
  ScopedHandle kept = Open(kEvent, name + "0");
  ASSERT_TRUE(kept);
  EXPECT_GT(HandleCount(kept), 1u);
  holder.Kill();
  holder.Wait();
  EXPECT_EQ(HandleCount(kept), 1u);
  for (const Kind kind : {kMutex, kSemaphore, kMapping}) {
    const std::string full = name + std::to_string(kind);
    EXPECT_FALSE(Open(kind, full));
    EXPECT_EQ(GetLastError(), DWORD{ERROR_FILE_NOT_FOUND});
    // What the dead process left is not taken up: any kind may have the name.
    ScopedHandle fresh = Create(kEvent, full);
    EXPECT_TRUE(fresh);
    EXPECT_EQ(GetLastError(), DWORD{ERROR_SUCCESS});
  }
}

TEST(Handle, IsOfOneKindAndGoneOnceClosed) {
  const HANDLE handle = CreateEventA(nullptr, FALSE, FALSE, nullptr);
  // The reactor keeps handles as int.
  EXPECT_EQ(platform::IntToHandle(platform::HandleToInt(handle)), handle);
  EXPECT_FALSE(ReleaseMutex(handle));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
  HANDLE moved = nullptr;
  EXPECT_TRUE(DuplicateHandle(GetCurrentProcess(), handle, GetCurrentProcess(), &moved, 0, FALSE,
                              DUPLICATE_SAME_ACCESS | DUPLICATE_CLOSE_SOURCE));
  SetLastError(77);
  EXPECT_TRUE(CloseHandle(moved));
  EXPECT_EQ(GetLastError(), 77u);
  EXPECT_FALSE(CloseHandle(handle));
  EXPECT_EQ(GetLastError(), DWORD{ERROR_INVALID_HANDLE});
  EXPECT_FALSE(CloseHandle(nullptr));
  EXPECT_TRUE(CloseHandle(GetCurrentThread()));
}

}  // namespace
}  // namespace kestrun::test
