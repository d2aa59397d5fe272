// Connects to a listener that answers with anything at all: any bytes as its reply, and any words in the headers of the
// rings. Connect must return; a connection that it reports is used and closed.
//
// Input: a byte that says what is written where, 16 bytes for the header of a ring, and the reply. The names that a
// reply may give are "f.1", a region of the right size, and "f.2", one that is too small.
#include <atomic>
#include <optional>
#include <thread>

#include "fuzz_input.h"
#include "runtime/files/mapped_file.h"
#include "transport/shared/ipc_socket.h"

namespace kestrun::fuzz {
namespace {

constexpr u32 kRingSize = 0x10000;
constexpr u32 kStepMs = 20;

enum Choice : u8 { kRawReply = 1, kScribbleListener = 2, kScribbleConnection = 4, kFixedName = 8 };

// A region with its two rings, made by the listener.
struct Region {
  explicit Region(const std::string& name, u32 size = 2 * kRingSize)
      : file(name, size, true),
        view(file.CreateView(0, MappedFile::kWholeSize, true)),
        base(static_cast<u8*>(view->GetData())) {
    if (size < 2 * kRingSize) return;
    input.emplace(base, kRingSize, name + ".c2s");
    output.emplace(base + kRingSize, kRingSize, name + ".s2c");
  }
  void Scribble(u32 ring, const std::string& header) {
    for (std::size_t i = 0; i < header.size(); ++i) {
      // Relaxed: a hostile peer keeps no order. Atomic only so that the race is no undefined behaviour in this process.
      std::atomic_ref<u8>(base[ring * kRingSize + i]).store(static_cast<u8>(header[i]), std::memory_order_relaxed);
    }
  }
  MappedFile file;
  rc_ptr<MappedFile::ViewImpl> view;
  u8* base;
  std::optional<IpcRing> input;
  std::optional<IpcRing> output;
};

void UseConnection(IpcSocket& socket) {
  u8 block[300];
  socket.Write(block, sizeof block, 0);
  socket.Read(block, sizeof block, 0);
  socket.GetAvailable();
  socket.GetWaitHandle();
  socket.Read(block, sizeof block, 0);
}

void Answer(Region& listener, Region& connection, Input& input) {
  const u8 choice = input.Byte();
  const std::string header = input.Text(16);
  std::string reply = input.Rest();
  if ((choice & kFixedName) != 0)
    reply =
        "\x02\x03"
        "f.1" +
        reply;
  u8 request = 0;
  listener.input->Read(&request, 1, kStepMs * 10);
  if ((choice & kScribbleConnection) != 0) {
    connection.Scribble(choice >> 7, header);
  }
  if ((choice & kScribbleListener) != 0) listener.Scribble(choice >> 7, header);
  if ((choice & kRawReply) != 0) {
    listener.Scribble(1, std::string("\xF0\xFF\0\0", 4) + reply);
  } else {
    listener.output->Write(reply.data(), static_cast<u32>(reply.size()), 0);
  }
  listener.output->WakeReader();
}

}  // namespace
}  // namespace kestrun::fuzz

extern "C" int LLVMFuzzerTestOneInput(const kestrun::u8* data, std::size_t size) {
  using namespace kestrun;
  using namespace kestrun::fuzz;
  Folder();
  Region listener("f");
  Region connection("f.1");
  const Region small("f.2", 4096);
  Input input(data, size);
  std::thread answering([&] { Answer(listener, connection, input); });
  const rc_ptr<IpcSocket> socket(new IpcSocket());
  const bool isConnected = socket->Connect("f", kStepMs);
  answering.join();
  FUZZ_REQUIRE(isConnected == (socket->GetState() == IpcSocket::State::kConnected));
  if (isConnected) UseConnection(*socket);
  socket->Close();
  FUZZ_REQUIRE(socket->GetState() == IpcSocket::State::kClosed);
  return 0;
}
