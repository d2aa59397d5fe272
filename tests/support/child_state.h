// What a Child keeps of its process: the parts that all systems share, and what each system adds.
#ifndef KESTRUN_TESTS_SUPPORT_CHILD_STATE_H_
#define KESTRUN_TESTS_SUPPORT_CHILD_STATE_H_

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "support/child.h"

namespace kestrun::test {

// Collects one output of a child: a thread appends what comes, readers take lines or everything.
class ChildOutput {
 public:
  void Append(const char* bytes, std::size_t count) {
    std::lock_guard lock(mutex_);
    text_.append(bytes, count);
    changed_.notify_all();
  }
  void End() {
    std::lock_guard lock(mutex_);
    ended_ = true;
    changed_.notify_all();
  }
  std::string ReadLine() {
    std::unique_lock lock(mutex_);
    std::size_t end = 0;
    changed_.wait(lock, [&] { return (end = text_.find('\n', position_)) != std::string::npos || ended_; });
    if (end == std::string::npos) end = text_.size();
    std::string line = text_.substr(position_, end - position_);
    position_ = end < text_.size() ? end + 1 : end;
    if (!line.empty() && line.back() == '\r') line.pop_back();
    return line;
  }
  std::string All() {
    std::lock_guard lock(mutex_);
    return text_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::string text_;          // guarded by mutex_
  std::size_t position_ = 0;  // guarded by mutex_: start of the next line
  bool ended_ = false;        // guarded by mutex_
};

struct Child::State {
  virtual ~State() = default;

  // Each system's own. Throws std::runtime_error if the program can't be started.
  static std::unique_ptr<State> Start(const Words& commandLine, const ChildOptions& options);

  virtual unsigned long Pid() const = 0;
  // Writes all of it to the child's input; false if the child doesn't take it.
  virtual bool WriteInput(const std::string& text) = 0;
  virtual void CloseInput() = 0;
  virtual void Kill() = 0;
  virtual void Interrupt() = 0;
  // Waits; true once the process has ended.
  virtual bool EndsWithin(unsigned limitMs) = 0;
  // Of a process that has ended.
  virtual int ExitCode() = 0;

  const std::shared_ptr<ChildOutput> output = std::make_shared<ChildOutput>();
  const std::shared_ptr<ChildOutput> errors = std::make_shared<ChildOutput>();
  std::vector<std::thread> threads;  // that collect the two
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_SUPPORT_CHILD_STATE_H_
