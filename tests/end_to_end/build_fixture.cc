#include "build_fixture.h"

#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

namespace kestrun::test {
namespace {

// The folder of named objects is fixed with the first object that a process makes, so it is set before that.
const std::string& ObjectFolder() {
  static const TempFolder folder;
  static const std::string name = [] {
    const std::string path = folder.File("objects");
    SetEnvironmentVariableA("KESTRUN_OBJECT_DIR", path.c_str());
    return path;
  }();
  return name;
}

std::string Replace(std::string text, const std::string& from, const std::string& to) {
  for (std::size_t at = 0; (at = text.find(from, at)) != std::string::npos; at += to.size()) {
    text.replace(at, from.size(), to);
  }
  return text;
}

}  // namespace

Words SplitWords(const std::string& text) {
  std::istringstream stream(text);
  return {std::istream_iterator<std::string>(stream), {}};
}

unsigned ReadNumber(const char* variable, unsigned otherwise) {
  const char* const text = std::getenv(variable);
  return text != nullptr ? static_cast<unsigned>(std::strtoul(text, nullptr, 10)) : otherwise;
}

unsigned Scaled(unsigned count) {
  return static_cast<unsigned>(std::uint64_t{count} * ReadNumber("KESTRUN_TEST_SCALE", 100) / 100);
}

NamedEvent::NamedEvent(bool manualReset, const std::string& name) : name_(name) {
  ObjectFolder();
  handle_ = CreateEventA(nullptr, manualReset ? TRUE : FALSE, FALSE, name_.c_str());
  EXPECT_NE(handle_, nullptr) << "CreateEventA: error " << GetLastError();
}

NamedEvent::~NamedEvent() {
  CloseHandle(handle_);
}

Build::Build() {
  WriteSettings("");
}

Build::~Build() {
  if (!master_) return;
  if (!master_->EndsWithin(0)) master_->Kill();
  master_->Wait();
  if (HasFailure()) std::cerr << "The master's errors:\n" << master_->Errors();
}

void Build::WriteSettings(const std::string& lines) {
  std::filesystem::create_directories(folder_.Path() / "common" / "DORN");
  folder_.Write("common/DORN/Zelvo.ini", "[LocalSettings]\nLoggingEnabled=bool:true\n" + lines);
}

ChildOptions Build::WithEnvironment(ChildOptions options) const {
  options.environment.emplace("RV_COMMON_PATH", folder_.File("common"));
  options.environment.emplace("KESTRUN_OBJECT_DIR", ObjectFolder());
  options.environment.emplace("KESTRUN_ID", id_);
  for (const char* name : {"KESTRUN_OPTS", "KESTRUN_LOG", "KESTRUN_PROJECT"}) {
    options.environment.emplace(name, std::nullopt);
  }
  return options;
}

void Build::StartMaster(const Words& moreOptions) {
  Words words{ProgramPath("kestrun"), "-master", "-id",        id_,   "-er",
              ready_.Name(),          "-es",     stop_.Name(), "-ef", finish_.Name()};
  words.insert(words.end(), moreOptions.begin(), moreOptions.end());
  ready_.Reset();
  master_ = std::make_unique<Child>(Child::Start(words, WithEnvironment({})));
  for (int tries = 0; tries < 300 && !master_->EndsWithin(0); ++tries) {
    if (ready_.Wait(100)) return;
  }
  FAIL() << "the master did not become ready: " << master_->Errors();
}

int Build::StopMaster() {
  stop_.Signal();
  return master_->Wait();
}

Child Build::StartKestrun(const Words& words, ChildOptions options) {
  Words commandLine{ProgramPath("kestrun")};
  commandLine.insert(commandLine.end(), words.begin(), words.end());
  return Child::Start(commandLine, WithEnvironment(std::move(options)));
}

RunResult Build::Kestrun(const Words& words, ChildOptions options, unsigned limitMs) {
  Words commandLine{ProgramPath("kestrun")};
  commandLine.insert(commandLine.end(), words.begin(), words.end());
  return test::Run(commandLine, WithEnvironment(std::move(options)), limitMs);
}

RunResult Build::Tool(const Words& toolWords, ChildOptions options) {
  Words words{tool_};
  words.insert(words.end(), toolWords.begin(), toolWords.end());
  return Kestrun(words, std::move(options));
}

Child Build::StartTool(const Words& toolWords, ChildOptions options) {
  Words words{tool_};
  words.insert(words.end(), toolWords.begin(), toolWords.end());
  return StartKestrun(words, std::move(options));
}

std::string Build::WriteScript(std::string text) {
  return folder_.Write(UniqueName("script"), Replace(std::move(text), "$TOOL", "\"" + tool_ + "\""));
}

RunResult Build::Script(std::string text, const Words& options, unsigned limitMs) {
  Words words = options;
  words.insert(words.end(), {"-s", WriteScript(std::move(text))});
  return Kestrun(words, {}, limitMs);
}

std::string Build::LogText() const {
  std::string text;
  std::error_code missing;
  for (const auto& entry : std::filesystem::directory_iterator(folder_.Path() / "common" / "DORN" / "Log", missing)) {
    std::ifstream file(entry.path(), std::ios::binary);
    text.append(std::istreambuf_iterator<char>(file), {});
  }
  return text;
}

int Build::LogCount(const std::string& text) const {
  const std::string log = LogText();
  int count = 0;
  for (std::size_t at = 0; (at = log.find(text, at)) != std::string::npos; at += text.size()) ++count;
  return count;
}

}  // namespace kestrun::test
