// The entry of every test program: a test run, or one named child of a test.
#include <gtest/gtest.h>

#include <cstdio>
#include <iostream>
#include <map>
#include <string>

#include "support/child.h"

namespace kestrun::test {
namespace {

std::map<std::string, ChildBody>& Children() {
  static std::map<std::string, ChildBody> children;
  return children;
}

constexpr char kChildOption[] = "--kestrun-child=";

}  // namespace

ChildRegistration::ChildRegistration(const char* name, ChildBody body) {
  Children()[name] = body;
}

Child Child::Self(const std::string& name, const Words& words, const ChildOptions& options) {
  Words commandLine{ProgramPath(""), kChildOption + name};
  commandLine.insert(commandLine.end(), words.begin(), words.end());
  return Start(commandLine, options);
}

RunResult Run(const Words& commandLine, const ChildOptions& options, unsigned limitMs) {
  Child child = Child::Start(commandLine, options);
  RunResult result;
  result.exitCode = child.Wait(limitMs);
  result.output = child.Output();
  result.errors = child.Errors();
  return result;
}

void Say(const std::string& line) {
  std::fputs((line + "\n").c_str(), stdout);
  std::fflush(stdout);
}

std::string AwaitLine() {
  std::string line;
  std::getline(std::cin, line);
  if (!line.empty() && line.back() == '\r') line.pop_back();
  return line;
}

}  // namespace kestrun::test

int main(int argc, char** argv) {
  using namespace kestrun::test;
  const std::string first = argc > 1 ? argv[1] : "";
  if (first.rfind(kChildOption, 0) == 0) {
    const auto child = Children().find(first.substr(sizeof kChildOption - 1));
    if (child == Children().end()) {
      std::cerr << "no child of this name: " << first << '\n';
      return 99;
    }
    return child->second(Words(argv + 2, argv + argc));
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
