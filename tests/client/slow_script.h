// A slow and obvious reading of job scripts, to compare the real one with.
#ifndef KESTRUN_TESTS_CLIENT_SLOW_SCRIPT_H_
#define KESTRUN_TESTS_CLIENT_SLOW_SCRIPT_H_

#include <string>
#include <vector>

#include "client/job_script.h"

namespace kestrun::test {

// Jobs as text, so that a failure can be read: echo{tool|arguments} for each.
inline std::string ShowJobs(const std::vector<ScriptJob>& jobs) {
  std::string shown;
  for (const ScriptJob& job : jobs) shown += job.echoText + "{" + job.tool + "|" + job.arguments + "}";
  return shown;
}

// The line rules, one character at a time.
class SlowScript {
 public:
  explicit SlowScript(const std::string& text) : text_(text) {}

  std::string Show() {
    while (SkipLineEnds()) {
      std::string line = TakePiece();
      while (!line.empty() && line.back() == '\\' && position_ < text_.size()) {
        line.back() = ' ';
        SkipLineEnds();
        line += TakePiece();
      }
      Classify(line);
    }
    return shown_;
  }

 private:
  bool IsLineEnd() const { return text_[position_] == '\r' || text_[position_] == '\n'; }
  bool SkipLineEnds() {
    while (position_ < text_.size() && IsLineEnd()) ++position_;
    return position_ < text_.size();
  }
  std::string TakePiece() {
    std::string piece;
    while (position_ < text_.size() && !IsLineEnd()) piece += text_[position_++];
    return piece;
  }
  static void DropBlanks(std::string& line) {
    while (!line.empty() && (line[0] == ' ' || line[0] == '\t')) line.erase(0, 1);
  }
  void Classify(std::string line) {
    DropBlanks(line);
    if (line.empty() || line[0] == '#' || line[0] == ';') return;
    if (line.substr(0, 4) == "echo") {
      line.erase(0, 4);
      DropBlanks(line);
      echo_ += line + "\r\n";
      return;
    }
    const char end = line[0] == '"' ? '"' : ' ';
    if (end == '"') line.erase(0, 1);
    std::string tool;
    while (!line.empty() && line[0] != end) {
      tool += line[0];
      line.erase(0, 1);
    }
    if (!line.empty()) line.erase(0, 1);
    shown_ += echo_ + "{" + tool + "|" + line + "}";
    echo_.clear();
  }

  const std::string text_;
  std::size_t position_ = 0;
  std::string echo_;
  std::string shown_;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_CLIENT_SLOW_SCRIPT_H_
