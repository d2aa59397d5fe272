// Two users on one system: neither can reach, block or end what is the other's.
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "../dorn_fixture.h"
#include "surroundings.h"

namespace kestrun::test {
namespace {

constexpr unsigned kSecondUser = 65531;

class SecondUser : public Dorn {
 protected:
  void SetUp() override {
    if (geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    // Whatever is refused is refused by the object folder itself, and not by the folders above it.
    std::filesystem::permissions(folder_.Path(), std::filesystem::perms(0755));
    std::filesystem::permissions(Objects().parent_path(), std::filesystem::perms(0755));
    own_ = folder_.File("second");
    std::filesystem::create_directory(own_);
    ASSERT_EQ(chown(own_.c_str(), kSecondUser, kSecondUser), 0);
    const RunResult probe = AsSecondUser({tool_, "exit", "3"}, Objects());
    if (probe.exitCode == kNotPossible) GTEST_SKIP() << probe.errors;
    ASSERT_EQ(probe.exitCode, 3);
  }
  std::filesystem::path Objects() const { return *WithEnvironment({}).environment.at("KESTRUN_OBJECT_DIR"); }
  RunResult AsSecondUser(const Words& command, const std::string& objects, bool isDorn = false) {
    return AsUser(kSecondUser, {}, command, objects, own_, isDorn);
  }
  RunResult AsUser(unsigned user, Words surroundings, const Words& command, const std::string& objects,
                   const std::string& own, bool isDorn) {
    ChildOptions options = isDorn ? Environment() : WithEnvironment({});
    options.environment["RV_COMMON_PATH"] = own + "/common";
    options.environment["KESTRUN_OBJECT_DIR"] = objects;
    surroundings.push_back("user=" + std::to_string(user));
    return test::Run(Within(surroundings, command), options);
  }

  std::string own_;  // a folder of the second user's
};

TEST_F(SecondUser, ReachesNothingOfTheFirst) {
  NamedEvent stop;
  StartMaster();
  const RunResult client = AsSecondUser({ProgramPath("kestrun"), tool_, "exit", "4"}, Objects());
  EXPECT_NE(client.exitCode, 4);
  EXPECT_NE(client.errors.find(": it belongs to another user\n"), std::string::npos) << client.errors;
  EXPECT_EQ(AsSecondUser({tool_, "signal", stop.Name()}, Objects()).exitCode, 98);
  EXPECT_FALSE(stop.Wait(0));
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  EXPECT_EQ(StopMaster(), 0);
}

TEST_F(SecondUser, HasAMasterBesideTheFirst) {
  StartMaster();
  const RunResult second = AsSecondUser(
      {ProgramPath("dorn"), "--id", id_, ProgramPath("kestrun"), tool_, "print", "second"}, own_ + "/objects", true);
  EXPECT_EQ(second.exitCode, 0) << second.errors;
  EXPECT_EQ(second.output, "second\n");
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_EQ(LogCount("Build Job completed"), 1);
}

// The limit counts the processes and threads of dorn, the master and its tools together. Each run is made as another
// user, because an ended process counts for its user until its parent has waited for it.
TEST_F(SecondUser, IsToldThatItMayHaveNoMoreTasks) {
  // From a limit at which dorn can't start its first helper, over limits at which the master lacks some threads, to one
  // that is enough.
  for (const unsigned tasks : {1, 4, 7, 10, 13, 16, 19, 100}) {
    const std::string own = folder_.File("user" + std::to_string(tasks));
    std::filesystem::create_directory(own);
    ASSERT_EQ(chown(own.c_str(), kSecondUser - tasks, kSecondUser), 0);
    const RunResult result =
        AsUser(kSecondUser - tasks, {"tasks=" + std::to_string(tasks)},
               {ProgramPath("dorn"), ProgramPath("kestrun"), tool_, "print", "built"}, own + "/objects", own, true);
    if (result.exitCode == 0) {
      EXPECT_EQ(result.output, "built\n") << tasks;
      continue;
    }
    EXPECT_LT(tasks, 100u) << result.errors;
    EXPECT_FALSE(result.exitCode > 128 && result.exitCode < 160) << tasks << ": " << result.exitCode;
    EXPECT_EQ(result.errors.find("did not become ready"), std::string::npos) << tasks;
    EXPECT_NE(result.errors.find("error"), std::string::npos) << tasks << ": " << result.errors;
  }
}

// What stands under the name that the first user's folder is to have: a folder, a link to one of the first user's own.
TEST_F(SecondUser, WinsNothingByBeingThereBefore) {
  const std::string folder = own_ + "/folder";
  const std::string link = own_ + "/link";
  std::filesystem::create_directory(folder);
  ASSERT_EQ(chmod(folder.c_str(), 0700), 0);
  ASSERT_EQ(lchown(folder.c_str(), kSecondUser, kSecondUser), 0);
  std::filesystem::create_symlink(Objects(), link);
  ASSERT_EQ(lchown(link.c_str(), kSecondUser, kSecondUser), 0);
  const struct {
    std::string objects;
    const char* cause;
  } cases[] = {{folder, ": it belongs to another user\n"}, {link, ": it is a symbolic link\n"}};
  for (const auto& c : cases) {
    ChildOptions options = Environment();
    options.environment["KESTRUN_OBJECT_DIR"] = c.objects;
    const RunResult first = test::Run({ProgramPath("dorn"), tool_, "print", "ran"}, options);
    EXPECT_EQ(first.exitCode, 125);
    EXPECT_EQ(first.output, "");
    EXPECT_NE(first.errors.find(c.cause), std::string::npos) << first.errors;
  }
  EXPECT_TRUE(std::filesystem::is_empty(folder));
}

}  // namespace
}  // namespace kestrun::test
