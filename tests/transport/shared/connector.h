#ifndef KESTRUN_TESTS_TRANSPORT_CONNECTOR_H_
#define KESTRUN_TESTS_TRANSPORT_CONNECTOR_H_

#include <memory>
#include <string>
#include <vector>

#include "runtime/files/mapped_file.h"
#include "runtime/threads/sync.h"
#include "transport/shared/ipc_ring.h"

namespace kestrun::test {

// A connector made of the parts, so that it can stop after any of its steps.
class Connector {
 public:
  explicit Connector(const std::string& name) : name_(name) {}

  void TakeTurn() { turn_ = std::make_unique<NamedMutexLock>(name_ + ".lck"); }
  void Attach() { Open(name_); }
  void Ask() {
    const u8 request = 1;
    toListener_->Write(&request, 1, kLimitMs);
  }
  void TakeReply() {
    char reply[512] = {};
    fromListener_->Read(reply, sizeof reply, kLimitMs);
    Open(reply + 2);
  }
  void AwaitReply() {
    while (fromListener_->GetUsed() == 0) SwitchToThread();
  }

 private:
  static constexpr u32 kLimitMs = 60000;

  void Open(const std::string& name) {
    file_.push_back(std::make_unique<MappedFile>(name, 0, false));
    view_.push_back(file_.back()->CreateView(0, MappedFile::kWholeSize, true));
    u8* base = static_cast<u8*>(view_.back()->GetData());
    toListener_ = ring_.emplace_back(std::make_unique<IpcRing>(base, name + ".c2s")).get();
    fromListener_ = ring_.emplace_back(std::make_unique<IpcRing>(base + 0x10000, name + ".s2c")).get();
  }

  const std::string name_;
  std::unique_ptr<NamedMutexLock> turn_;
  std::vector<std::unique_ptr<MappedFile>> file_;
  std::vector<rc_ptr<MappedFile::ViewImpl>> view_;
  std::vector<std::unique_ptr<IpcRing>> ring_;
  IpcRing* toListener_ = nullptr;
  IpcRing* fromListener_ = nullptr;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_TRANSPORT_CONNECTOR_H_
