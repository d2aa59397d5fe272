// Builds whose tools run as their callers would have run them.
#ifndef KESTRUN_TESTS_END_TO_END_SAME_BUILD_FIXTURE_H_
#define KESTRUN_TESTS_END_TO_END_SAME_BUILD_FIXTURE_H_

#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <string>

#include "build_fixture.h"

namespace kestrun::test {

class SameBuild : public Build {
 protected:
  // Runs a command in a folder of its own, that is empty at first.
  struct Outcome {
    RunResult result;
    std::map<std::string, std::string> files;  // name -> kind, mode and bytes
  };

  void StartTransparentMaster(const std::string& limit = "MaxConcurrentJobs=int:2\n", const std::string& more = "") {
    WriteSettings(limit + "\n[Extensions]\nEagerScheduling=bool:true\nTransparentTools=bool:true\n" + more);
    StartMaster();
  }

  Outcome RunApart(const Words& words, ChildOptions options = {}) {
    const TempFolder place;
    options.workingDirectory = place.Path().string();
    Outcome outcome;
    outcome.result = test::Run(words, WithEnvironment(std::move(options)));
    for (const auto& entry : std::filesystem::recursive_directory_iterator(place.Path())) {
      std::string what = entry.is_directory() ? "folder " : "file ";
      what += std::to_string(static_cast<unsigned>(entry.status().permissions())) + " ";
      if (entry.is_regular_file()) {
        std::ifstream file(entry.path(), std::ios::binary);
        what.append(std::istreambuf_iterator<char>(file), {});
      }
      outcome.files[std::filesystem::relative(entry.path(), place.Path()).generic_string()] = what;
    }
    return outcome;
  }

  static void ExpectSame(const Outcome& expected, const Outcome& seen, const std::string& what) {
    EXPECT_EQ(expected.result.exitCode, seen.result.exitCode) << what;
    EXPECT_EQ(expected.result.output, seen.result.output) << what;
    EXPECT_EQ(expected.result.errors, seen.result.errors) << what;
    EXPECT_EQ(expected.files, seen.files) << what;
  }
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_END_TO_END_SAME_BUILD_FIXTURE_H_
