// A test with an empty object table of its own, in memory that has no name, as the one process that uses it.
#ifndef KESTRUN_TESTS_PLATFORM_LINUX_OBJECTS_TABLE_FIXTURE_H_
#define KESTRUN_TESTS_PLATFORM_LINUX_OBJECTS_TABLE_FIXTURE_H_

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <cstring>

#include "platform/linux/base/file_descriptor.h"
#include "platform/linux/objects/object_slots.h"
#include "platform/linux/objects/process_slots.h"

namespace kestrun::test {

class ObjectTableTest : public testing::Test {
 protected:
  ObjectTableTest() {
    EXPECT_EQ(ftruncate(file_.get(), sizeof layout_), 0);
    slots_.StartAnew(sizeof layout_);
    EXPECT_TRUE(processes_.Claim());
  }
  ~ObjectTableTest() override { munmap(&layout_, sizeof layout_); }

  unsigned Claim() {
    unsigned slot = 0;
    EXPECT_TRUE(slots_.Claim(&slot));
    return slot;
  }

  // A live object in bucket 0.
  unsigned Make(const char* name) {
    const unsigned slot = Claim();
    platform::ObjectHeader& header = slots_[slot].header;
    header.nameLength = static_cast<std::uint32_t>(std::strlen(name));
    std::memcpy(header.name, name, header.nameLength);
    slots_[slot].bucket = 0;
    slots_.Link(0, slot);
    return slot;
  }

  platform::SlotPhase Phase(unsigned slot) const { return slots_.State(slot).phase; }

  const platform::FileDescriptor file_{memfd_create("table", MFD_CLOEXEC)};
  platform::ObjectLayout& layout_ = *static_cast<platform::ObjectLayout*>(
      mmap(nullptr, sizeof layout_, PROT_READ | PROT_WRITE, MAP_SHARED, file_.get(), 0));
  platform::ProcessSlots processes_{file_.get(), layout_};
  platform::ObjectSlots slots_{file_.get(), layout_, processes_};
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_PLATFORM_LINUX_OBJECTS_TABLE_FIXTURE_H_
