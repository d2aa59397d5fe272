// Clients, tools, background processes and masters that are killed at any moment of a build under way.
//
// KESTRUN_KILL_SEED repeats a run's choices (not its timing), KESTRUN_KILL_COUNT sets how many kills there are.
#include <algorithm>
#include <fstream>
#include <iostream>
#include <random>
#include <stdexcept>
#include <vector>

#include "kill_support.h"

namespace kestrun::test {
namespace {

constexpr int kPlaces = 6;
constexpr std::size_t kClients = 5;
constexpr unsigned kKillsBetweenCounts = 40;

// A client and what the test expects of it.
struct Client {
  int number;
  Child child;
  std::size_t outputSize = 0;
  std::size_t errorSize = 0;
  int code = number % 5;
  // Of a client whose tool waits, with a background process:
  std::string note{};                 // the name of a file with the tool's id
  std::string backgroundNote{};       // the same of the background process
  std::unique_ptr<Tether> release{};  // held by the tool, which waits for it; else null
  std::unique_ptr<Tether> never{};    // held by the background process, which waits for it in vain
  bool isReleased = false;
  bool isToolKilled = false;
  bool hadItsMasterKilled = false;
};

// The processes of a killed client's job, which must end within the limit.
struct Remains {
  std::unique_ptr<Tether> release;
  std::unique_ptr<Tether> never;
  u32 since;
  bool AreGone() const { return !release->IsHeld() && !never->IsHeld(); }
};

class RandomKills : public KilledBuild {
 protected:
  u32 Random(u32 below) { return std::uniform_int_distribution<u32>(0, below - 1)(random_); }

  Client StartClient() {
    const int n = nextNumber_++;
    const std::string number = std::to_string(n);
    switch (Random(6)) {
      case 0:
        return {n, StartTool({"print", number, ",", "exit", Code(n)}), number.size() + 1};
      case 1:
        return {n, StartTool({"fill", "300000", "70000", ",", "exit", Code(n)}), 300000, 70000};
      case 2:
        return {n, StartKestrun({"-s", WriteScript("$TOOL print a\n$TOOL fill 5000 5000\n$TOOL print b\n")}), 5004,
                5000, 0};
      case 3:
        return {n, StartKestrun({ProgramPath("kestrun"), tool_, "print", number, ",", "exit", Code(n)}),
                number.size() + 1};
      default:
        return StartWaitingClient(n);
    }
  }

  Client StartWaitingClient(int n) {
    auto release = std::make_unique<Tether>();
    auto never = std::make_unique<Tether>();
    const std::string note = UniqueName("note");
    const std::string backgroundNote = UniqueName("note");
    Child child = StartToolInFolder("background daemon note " + backgroundNote + " , await " + never->Name() +
                                    " then note " + note + " , await " + release->Name() + " , exit " + Code(n));
    Client client{n, std::move(child)};
    client.note = note;
    client.backgroundNote = backgroundNote;
    client.release = std::move(release);
    client.never = std::move(never);
    return client;
  }

  static std::string Code(int n) { return std::to_string(n % 5); }

  // Expects the right result of a client that was not killed itself.
  void ExpectRight(Client& client) {
    const int code = client.child.Wait();
    const int n = client.number;
    if (client.hadItsMasterKilled) return;
    const std::string errors = client.child.Errors();
    const std::string about = "client " + std::to_string(n) + ": " + errors.substr(0, 300);
    if (client.isToolKilled) {
      EXPECT_EQ(code, 137) << about;
      return;
    }
    if (RefusesProcesses() && code == Seen(-1) &&
        Master().Errors().find("failed with error 1359") != std::string::npos) {
      ++refusals_;
      return;
    }
    EXPECT_EQ(code, client.code) << about;
    if (!client.release) {  // others tell the id of their background process
      EXPECT_EQ(client.child.Output().size(), client.outputSize) << about;
    }
    EXPECT_EQ(errors.size(), client.errorSize) << about;
    ++completed_;
  }

  // Replaces clients that have ended; now and then releases one that waits.
  void KeepWorking(bool letsOneGo = true) {
    for (std::size_t i = 0; i < clients_.size();) {
      Client& client = clients_[i];
      if (client.child.EndsWithin(0)) {
        ExpectRight(client);
        Bury(i);
        continue;
      }
      if (client.release && letsOneGo && Random(12) == 0) Release(client);
      ++i;
    }
    while (clients_.size() < kClients) {
      try {
        clients_.push_back(StartClient());
      } catch (const std::runtime_error& e) {
        EXPECT_TRUE(RefusesProcesses()) << e.what();
        ++refusals_;
      }
    }
    LookAtRemains();
  }

  static void Release(Client& client) {
    client.isReleased = true;
    client.release->Signal();
  }

  // Removes a client that has ended or was killed from the list.
  void Bury(std::size_t index) {
    Client& client = clients_[index];
    if (client.release) {
      remains_.push_back({std::move(client.release), std::move(client.never), static_cast<u32>(GetTickCount())});
    }
    clients_.erase(clients_.begin() + static_cast<std::ptrdiff_t>(index));
  }

  void LookAtRemains() {
    std::erase_if(remains_, [this](const Remains& remains) {
      const u32 ageMs = GetTickCount() - remains.since;
      const bool isOver = remains.AreGone() || ageMs > kKillLimitMs;
      if (isOver) slowestEndMs_ = std::max(slowestEndMs_, ageMs);
      EXPECT_LE(ageMs, kKillLimitMs) << "processes of a job are left";
      return isOver;
    });
  }

  void KillOne() {
    const u32 choice = Random(100);
    if (choice < 1) return KillMaster();  // each costs seconds: a start, and clients that were about to connect
    if (choice < 25) return KillTool();
    if (choice < 50) AwaitCompletion();
    const std::size_t index = Random(static_cast<u32>(clients_.size()));
    if (Random(3) == 0 && !StopsBeforeDeath(clients_[index].child.Pid())) return;
    clients_[index].child.Kill();
    ++clientKills_;
    Bury(index);
  }

  // Stops a client for a moment at whatever step it is; half of those stopped go on afterwards and are not killed.
  // While a client is stopped in the introduction, no other client can connect.
  bool StopsBeforeDeath(unsigned long pid) {
    StopProcess(pid);
    ++stops_;
    Sleep(Random(150));
    if (Random(2) == 0) return true;
    ContinueProcess(pid);
    return false;
  }

  // Waits until one more client has ended, so that work is done between the kills however slow the machine is.
  void AwaitCompletion() {
    const unsigned before = completed_;
    EXPECT_TRUE(BecomesTrue([&] { return KeepWorking(), completed_ > before; }));
  }

  void KillTool() {
    EXPECT_TRUE(BecomesTrue([&] {
      KeepWorking(false);
      return std::any_of(clients_.begin(), clients_.end(), [&](Client& client) { return KillToolOf(client); });
    }));
  }

  // Only clients with a tool that waits for its release: the tool and its background process still run then.
  bool KillToolOf(Client& client) {
    if (!client.release || client.isReleased || client.isToolKilled) return false;
    const unsigned long tool = ReadId(client.note);
    const unsigned long background = ReadId(client.backgroundNote);
    if (tool == 0 || background == 0) return false;
    if (Random(2) == 0) {
      KillProcess(tool);
      client.isToolKilled = true;
    } else {
      KillProcess(background);
      Release(client);  // so that nobody takes it for one with both
    }
    ++toolKills_;
    return true;
  }

  // The process id in the file; 0 until the whole line is there.
  unsigned long ReadId(const std::string& note) const {
    std::ifstream file(folder_.Path() / note);
    std::string line;
    std::getline(file, line);
    return line.empty() || file.eof() ? 0 : std::stoul(line);
  }

  void KillMaster() {
    Master().Kill();
    ++masterKills_;
    for (Client& client : clients_) client.hadItsMasterKilled = true;
    EndAll();
    EXPECT_TRUE(BecomesTrue([&] { return CountProcessesOf(id_) == 0; }));
    StartMaster();
  }

  // Lets all clients come to their end, and waits for what killed ones left.
  void EndAll() {
    for (Client& client : clients_) {
      if (client.release) Release(client);
    }
    while (!clients_.empty()) {
      ExpectRight(clients_[0]);
      Bury(0);
    }
    EXPECT_TRUE(BecomesTrue([&] { return LookAtRemains(), remains_.empty(); }));
  }

  void CountPlaces() {
    EndAll();
    const u32 start = GetTickCount();
    PlaceCount(id_).Expect(kPlaces);
    slowestPlacesMs_ = std::max<u32>(slowestPlacesMs_, GetTickCount() - start);
  }

  std::mt19937 random_;
  int nextNumber_ = 1;
  std::vector<Client> clients_;
  std::vector<Remains> remains_;
  unsigned clientKills_ = 0;
  unsigned stops_ = 0;
  unsigned toolKills_ = 0;
  unsigned masterKills_ = 0;
  unsigned completed_ = 0;
  unsigned refusals_ = 0;
  u32 slowestEndMs_ = 0;
  u32 slowestPlacesMs_ = 0;
};

// A kill harms only the job of the process that was killed: other clients get their results, all client slots become
// free, and no process and no name is left.
TEST_F(RandomKills, HarmNobodyElse) {
  const unsigned seed = ReadNumber("KESTRUN_KILL_SEED", std::random_device()() % 1000000);
  const unsigned count = ReadNumber("KESTRUN_KILL_COUNT", Scaled(500));
  std::cout << "KESTRUN_KILL_SEED=" << seed << std::endl;
  random_.seed(seed);
  StartWork(kPlaces, 8);
  const u32 start = GetTickCount();
  unsigned kills = 0;
  while (kills < count && !HasFailure()) {
    KeepWorking();
    Sleep(Random(60));  // the moment is part of the choice
    KillOne();
    if (++kills % kKillsBetweenCounts == 0) CountPlaces();
  }
  CountPlaces();
  EXPECT_LE(refusals_, 3u);
  EXPECT_EQ(Tool({"exit", "4"}).exitCode, 4);
  EXPECT_EQ(StopMaster(), 0);
  EXPECT_TRUE(BecomesTrue([&] { return CountProcessesOf(id_) == 0; }));
  std::cout << kills << " kills in " << (GetTickCount() - start) / 1000 << " s: " << clientKills_ << " clients, "
            << stops_ << " of them or others stopped, " << toolKills_ << " tools, " << masterKills_ << " masters; "
            << completed_ << " clients completed; slowest: " << slowestEndMs_
            << " ms until a job's processes were gone, " << slowestPlacesMs_ << " ms until all places were back"
            << std::endl;
}

}  // namespace
}  // namespace kestrun::test
