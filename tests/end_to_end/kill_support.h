// What tests that kill processes need beside the platform layer.
#ifndef KESTRUN_TESTS_END_TO_END_KILL_SUPPORT_H_
#define KESTRUN_TESTS_END_TO_END_KILL_SUPPORT_H_

#include <memory>
#include <stdexcept>
#include <string>

#include "build_fixture.h"
#include "protocol/dorn_session.h"
#include "protocol/names.h"
#include "protocol/place_table.h"
#include "support/becomes_true.h"
#include "transport/shared/handle_count.h"

namespace kestrun::test {

// Conditions are waited for this long; machines can be slow.
inline constexpr unsigned kKillLimitMs = 60000;

// Kills a process, which the caller knows to be running.
void KillProcess(unsigned long pid);
// StopProcess suspends a process wherever it is, ContinueProcess lets it go on. A suspended process can be killed. Both
// do nothing to a process that is ending.
void StopProcess(unsigned long pid);
void ContinueProcess(unsigned long pid);

// Removes the named objects in the folder that no process has open any more, and lists the rest, one a line, without
// the events of tests. Always empty where the system removes such objects itself.
std::string NamedObjectsLeft(const std::string& folder);

// How many processes run with KESTRUN_ID=ID in the environment that they were started with; 0 where the system does
// not tell.
int CountProcessesOf(const std::string& id);

// The record that dorns share. There is one as long as some process has it, and so for the life of this object.
class DornRecord {
 public:
  DornRecord()
      : region_(
            CreateFileMappingA(INVALID_HANDLE_VALUE, nullptr, PAGE_READWRITE, 0, DornSession::kSize, kDornSessionName)),
        record_(static_cast<DornSession*>(MapViewOfFile(region_, FILE_MAP_WRITE, 0, 0, 0))) {
    if (record_ == nullptr) throw std::runtime_error("no record of the dorn session");
  }
  ~DornRecord() {
    UnmapViewOfFile(record_);
    CloseHandle(region_);
  }
  DornRecord(const DornRecord&) = delete;
  DornRecord& operator=(const DornRecord&) = delete;
  DornSession* operator->() const { return record_; }

 private:
  const HANDLE region_;
  DornSession* const record_;
};

// The process of the master that dorns share, from their record; 0 if there is none.
inline DWORD MasterOfDorns() {
  return DornSession::GetMasterProcess(DornRecord()->master);
}

// An event that processes of a job keep open until they end, so that its handle count tells whether they have ended.
class Tether {
 public:
  const std::string& Name() const { return event_.Name(); }
  void Signal() { event_.Signal(); }
  bool IsHeld() const { return GetHandleCount(event_.Handle()) != 1; }

 private:
  NamedEvent event_{true};
};

// A build whose settings reclaim what killed processes held, and a check that nothing is left of it.
class KilledBuild : public Build {
 protected:
  void StartWork(int places, int jobsAtOnce) {
    WriteSettings("MaxStubs=int:" + std::to_string(places) + "\nMaxConcurrentJobs=int:" + std::to_string(jobsAtOnce) +
                  "\n\n[Extensions]\nEagerScheduling=bool:true\nCancelOrphanedJobs=bool:true\n"
                  "ReclaimPlaces=bool:true\nDiscardOutput=bool:true\n");
    StartMaster();
  }
  // Starts a client of test_tool in the folder of the test, so that a note needs no path.
  Child StartToolInFolder(const std::string& words) {
    ChildOptions options;
    options.workingDirectory = folder_.Path().string();
    return StartTool(SplitWords(words), options);
  }
  // Expects that no process and no named object of the build is left. Waits, since a master that ends because its last
  // dorn was killed takes a moment.
  void ExpectNothingLeft() {
    EXPECT_TRUE(BecomesTrue([&] { return CountProcessesOf(id_) == 0 && ListNamesLeft().empty(); })) << ListNamesLeft();
    EXPECT_EQ(NamedObjectsLeft(*WithEnvironment({}).environment["KESTRUN_OBJECT_DIR"]), "");
  }

 private:
  std::string ListNamesLeft() const {
    std::string names;
    const auto note = [&names](HANDLE object, const char* name) {
      if (object == nullptr) return;
      CloseHandle(object);
      names += std::string(name) + " ";
    };
    note(OpenSemaphoreA(SYNCHRONIZE, FALSE, GetAccessName(id_).c_str()), "client slots");
    note(OpenMutexA(SYNCHRONIZE, FALSE, GetKeeperName(id_).c_str()), "keeper");
    note(OpenFileMappingA(FILE_MAP_READ, FALSE, GetListeningName(id_).c_str()), "listener");
    note(OpenEventA(SYNCHRONIZE, FALSE, "Global\\dorn_kr_project_stub"), "master");
    return names;
  }
};

// Tools that wait for `release`, each with a background process that waits for `never`.
class TetheredBuild : public KilledBuild {
 protected:
  void NewTethers() {
    release_ = std::make_unique<Tether>();
    never_ = std::make_unique<Tether>();
  }
  // The words of such a tool, which signals `started`.
  std::string RunningWords(const NamedEvent& started) const {
    return "background daemon await " + never_->Name() + " then signal " + started.Name() + " , await " +
           release_->Name();
  }
  // Waits until the tool has signalled `started`, and tool and background process have their tethers open.
  void AwaitRunning(NamedEvent& started) {
    EXPECT_TRUE(started.Wait(kKillLimitMs));
    EXPECT_TRUE(BecomesTrue([&] { return never_->IsHeld() && release_->IsHeld(); }));
  }
  // Starts a client whose tool writes its own process id and that of its background process into files of these names,
  // and then 100000 and 50000 bytes to its outputs.
  Child StartNoted(const std::string& tool, const std::string& background) {
    NamedEvent started;
    Child client = StartToolInFolder("background daemon note " + background + " , await " + never_->Name() +
                                     " then note " + tool + " , fill 100000 50000 , signal " + started.Name() +
                                     " , await " + release_->Name() + " , exit 6");
    AwaitRunning(started);
    return client;
  }
  unsigned long NotedId(const std::string& file) const { return std::stoul(folder_.Read(file)); }

  std::unique_ptr<Tether> release_;
  std::unique_ptr<Tether> never_;
};

// Counts the free client slots of a build.
class PlaceCount {
 public:
  explicit PlaceCount(const std::string& id)
      : access_(OpenSemaphoreA(SEMAPHORE_ALL_ACCESS, FALSE, GetAccessName(id).c_str())) {
    EXPECT_NE(access_, nullptr);
  }
  ~PlaceCount() { CloseHandle(access_); }
  PlaceCount(const PlaceCount&) = delete;
  PlaceCount& operator=(const PlaceCount&) = delete;

  // Waits until exactly `count` client slots are free: takes them all, and gives them back.
  void Expect(int count) {
    int taken = 0;
    while (taken < count && WaitForSingleObject(access_, kKillLimitMs) == WAIT_OBJECT_0) ++taken;
    EXPECT_EQ(taken, count) << "places are lost";
    EXPECT_EQ(WaitForSingleObject(access_, 0), DWORD{WAIT_TIMEOUT}) << "more places than there should be";
    if (taken > 0) ReleaseSemaphore(access_, taken, nullptr);
  }

 private:
  HANDLE access_;
};

}  // namespace kestrun::test

#endif  // KESTRUN_TESTS_END_TO_END_KILL_SUPPORT_H_
