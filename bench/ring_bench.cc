// Moves bytes between two processes over the shared-memory ring, a pipe or a Unix socket, and prints the seconds it
// took.
//
//   ring_bench ring|pipe|unix latency COUNT              COUNT round trips of 64 bytes
//   ring_bench ring|pipe|unix throughput BYTES BLOCK     BYTES one way, in writes of BLOCK bytes
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "runtime/base/rc_ptr.h"
#include "runtime/base/types.h"
#include "transport/shared/ipc_socket.h"

namespace {

using kestrun::u32;
using Clock = std::chrono::steady_clock;

constexpr size_t kTripSize = 64;
constexpr u32 kConnectMs = 10000;

// One end of a transport. Both operations block and throw when the other end has gone.
class Road {
 public:
  virtual ~Road() = default;
  virtual void Write(const void* data, size_t size) = 0;
  // At least one byte, at most `size`.
  virtual size_t Read(void* data, size_t size) = 0;

  void ReadAll(void* data, size_t size) {
    for (size_t got = 0; got < size;) got += Read(static_cast<char*>(data) + got, size - got);
  }
};

class DescriptorRoad : public Road {
 public:
  DescriptorRoad(int in, int out) : in_(in), out_(out) {}
  ~DescriptorRoad() override {
    close(in_);
    if (out_ != in_) close(out_);
  }
  void Write(const void* data, size_t size) override {
    const char* from = static_cast<const char*>(data);
    while (size > 0) {
      ssize_t written = write(out_, from, size);
      if (written <= 0) throw std::runtime_error("write failed");
      from += written;
      size -= static_cast<size_t>(written);
    }
  }
  size_t Read(void* data, size_t size) override {
    ssize_t got = read(in_, data, size);
    if (got <= 0) throw std::runtime_error("read failed");
    return static_cast<size_t>(got);
  }

 private:
  int in_;
  int out_;
};

class RingRoad : public Road {
 public:
  explicit RingRoad(kestrun::rc_ptr<kestrun::IpcSocket> socket) : socket_(std::move(socket)) {}
  ~RingRoad() override { socket_->Close(); }
  void Write(const void* data, size_t size) override {
    if (socket_->Write(data, static_cast<u32>(size), kestrun::kNoLimit).count != size) {
      throw std::runtime_error("ring write failed");
    }
  }
  size_t Read(void* data, size_t size) override {
    u32 got = socket_->Read(data, static_cast<u32>(size), kestrun::kNoLimit).count;
    if (got == 0) throw std::runtime_error("ring read failed");
    return got;
  }

 private:
  kestrun::rc_ptr<kestrun::IpcSocket> socket_;
};

// The two ends of a transport, each opened in the process that uses it.
class RoadPair {
 public:
  virtual ~RoadPair() = default;
  virtual std::unique_ptr<Road> OpenParent() = 0;
  virtual std::unique_ptr<Road> OpenChild() = 0;
};

class DescriptorPair : public RoadPair {
 public:
  explicit DescriptorPair(bool isSocket) {
    bool isMade = isSocket ? socketpair(AF_UNIX, SOCK_STREAM, 0, parent_) == 0 : MakePipes();
    if (!isMade) throw std::runtime_error("no pipe to be had");
    if (isSocket) {
      child_[0] = child_[1] = parent_[1];
      parent_[1] = parent_[0];
    }
  }
  std::unique_ptr<Road> OpenParent() override { return Open(parent_, child_); }
  std::unique_ptr<Road> OpenChild() override { return Open(child_, parent_); }

 private:
  bool MakePipes() {
    int toChild[2];
    int toParent[2];
    if (pipe(toChild) != 0 || pipe(toParent) != 0) return false;
    parent_[0] = toParent[0];
    parent_[1] = toChild[1];
    child_[0] = toChild[0];
    child_[1] = toParent[1];
    return true;
  }
  static std::unique_ptr<Road> Open(const int (&own)[2], const int (&others)[2]) {
    DescriptorRoad closedWithScope(others[0], others[1]);
    return std::make_unique<DescriptorRoad>(own[0], own[1]);
  }

  int parent_[2];
  int child_[2];
};

class RingPair : public RoadPair {
 public:
  std::unique_ptr<Road> OpenParent() override {
    kestrun::rc_ptr<kestrun::IpcSocket> listener(new kestrun::IpcSocket);
    if (!listener->Listen(name_)) throw std::runtime_error("cannot listen");
    char ready = 1;
    if (write(gate_[1], &ready, 1) != 1) throw std::runtime_error("the gate is shut");
    kestrun::rc_ptr<kestrun::IpcSocket> connected(listener->Accept());
    if (!connected) throw std::runtime_error("cannot accept");
    return std::make_unique<RingRoad>(connected);
  }
  std::unique_ptr<Road> OpenChild() override {
    char ready = 0;
    if (read(gate_[0], &ready, 1) != 1) throw std::runtime_error("the gate is shut");
    kestrun::rc_ptr<kestrun::IpcSocket> socket(new kestrun::IpcSocket);
    if (!socket->Connect(name_, kConnectMs)) throw std::runtime_error("cannot connect");
    return std::make_unique<RingRoad>(socket);
  }
  RingPair() : name_("ring_bench" + std::to_string(getpid())) {
    if (pipe(gate_) != 0) throw std::runtime_error("no pipe to be had");
  }
  ~RingPair() override {
    close(gate_[0]);
    close(gate_[1]);
  }

 private:
  std::string name_;
  int gate_[2];  // opens when the parent listens
};

std::unique_ptr<RoadPair> MakePair(const std::string& kind) {
  if (kind == "ring") return std::make_unique<RingPair>();
  if (kind == "pipe" || kind == "unix") return std::make_unique<DescriptorPair>(kind == "unix");
  throw std::runtime_error("no such road: " + kind);
}

// Either end of a test. Both move the same bytes; a last byte back tells that all have arrived.
struct Latency {
  size_t count;
  void Lead(Road& road) const {
    char block[kTripSize] = {};
    for (size_t i = 0; i < count; ++i) {
      road.Write(block, sizeof block);
      road.ReadAll(block, sizeof block);
    }
  }
  void Follow(Road& road) const {
    char block[kTripSize];
    for (size_t i = 0; i < count; ++i) {
      road.ReadAll(block, sizeof block);
      road.Write(block, sizeof block);
    }
  }
};

struct Throughput {
  size_t bytes;
  size_t blockSize;
  void Lead(Road& road) const {
    std::vector<char> block(blockSize, 'k');
    for (size_t sent = 0; sent < bytes; sent += blockSize) road.Write(block.data(), blockSize);
    char end;
    road.ReadAll(&end, 1);
  }
  void Follow(Road& road) const {
    std::vector<char> block(blockSize);
    size_t whole = (bytes + blockSize - 1) / blockSize * blockSize;
    for (size_t got = 0; got < whole;) got += road.Read(block.data(), blockSize);
    road.Write("e", 1);
  }
};

template <class Test>
double Measure(RoadPair& pair, const Test& test) {
  pid_t child = fork();
  if (child < 0) throw std::runtime_error("cannot fork");
  if (child == 0) {
    try {
      std::unique_ptr<Road> road = pair.OpenChild();
      // The first round trip is not timed: it includes the time until the other end has started.
      Latency{1}.Follow(*road);
      test.Follow(*road);
    } catch (const std::exception& error) {
      std::fprintf(stderr, "ring_bench: %s\n", error.what());
      _exit(1);
    }
    _exit(0);
  }
  std::unique_ptr<Road> road = pair.OpenParent();
  Latency{1}.Lead(*road);
  Clock::time_point begin = Clock::now();
  test.Lead(*road);
  double seconds = std::chrono::duration<double>(Clock::now() - begin).count();
  int status = 0;
  waitpid(child, &status, 0);
  if (status != 0) throw std::runtime_error("the other end failed");
  return seconds;
}

size_t Number(const char* text) {
  return std::strtoull(text, nullptr, 10);
}

}  // namespace

int main(int argc, char** argv) {
  std::string mode = argc > 2 ? argv[2] : "";
  try {
    if (mode == "latency" && argc == 4) {
      std::printf("%.9f\n", Measure(*MakePair(argv[1]), Latency{Number(argv[3])}));
      return 0;
    }
    if (mode == "throughput" && argc == 5 && Number(argv[4]) > 0) {
      std::printf("%.9f\n", Measure(*MakePair(argv[1]), Throughput{Number(argv[3]), Number(argv[4])}));
      return 0;
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "ring_bench: %s\n", error.what());
    return 1;
  }
  std::fprintf(stderr, "usage: ring_bench ring|pipe|unix latency COUNT | throughput BYTES BLOCK\n");
  return 2;
}
