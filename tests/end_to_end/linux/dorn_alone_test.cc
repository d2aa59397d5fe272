// The folder of named objects of a dorn with a master of its own.
#include <filesystem>

#include "dorn_fixture.h"

namespace kestrun::test {
namespace {

class DornAlone : public Dorn {
 protected:
  DornAlone() { EXPECT_EQ(RunDorn({"--settings", "update"}).exitCode, 0); }
  ChildOptions InOwnFolder() {
    ChildOptions options = Environment();
    options.environment["KESTRUN_OBJECT_DIR"] = folder_.File("objects/all");
    return options;
  }
  Child StartAlone() {
    Child dorn = Child::Start({ProgramPath("dorn"), "--alone", "sh", "-c", "echo $KESTRUN_OBJECT_DIR; exec sleep 300"},
                              InOwnFolder());
    folders_.push_back(dorn.ReadLine());
    EXPECT_TRUE(std::filesystem::exists(folders_.back())) << dorn.Errors();
    return dorn;
  }
  void RunAnother() { EXPECT_EQ(test::Run({ProgramPath("dorn"), "true"}, InOwnFolder()).exitCode, 0); }

  std::vector<std::string> folders_;
};

TEST_F(DornAlone, LeavesNoFolderForGoodWhenItIsKilled) {
  std::filesystem::create_directory(folder_.Path() / "objects");
  Child living = StartAlone();
  Child killed = StartAlone();
  killed.Kill();
  killed.Wait();
  // Its master ends a moment later.
  EXPECT_TRUE(BecomesTrue([&] { return RunAnother(), !std::filesystem::exists(folders_[1]); }));
  EXPECT_TRUE(std::filesystem::exists(folders_[0]));
  living.Interrupt();
  living.Wait();
  EXPECT_FALSE(std::filesystem::exists(folders_[0]));
}

}  // namespace
}  // namespace kestrun::test
