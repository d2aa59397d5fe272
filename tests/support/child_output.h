// Collects one output of a child: a thread appends what comes, readers take lines or everything.
#ifndef KESTRUN_TESTS_SUPPORT_CHILD_OUTPUT_H_
#define KESTRUN_TESTS_SUPPORT_CHILD_OUTPUT_H_

#include <condition_variable>
#include <mutex>
#include <string>

namespace kestrun::test {

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

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_SUPPORT_CHILD_OUTPUT_H_
