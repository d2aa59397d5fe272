#include "transport/sockets/socket_stream.h"

#include <atomic>
#include <string>
#include <utility>

namespace kestrun {

namespace {

std::atomic<u32> defaultTimeoutMs{0};

std::string Progress(u32 sent, u32 count) {
  return "(sent " + std::to_string(sent) + " of " + std::to_string(count) + " bytes)";
}

}  // namespace

void SocketStream::SetDefaultTimeout(u32 timeoutMs) {
  defaultTimeoutMs = timeoutMs;
}

SocketStream::SocketStream(rc_ptr<Socket> socket) : SocketStream(std::move(socket), defaultTimeoutMs) {}

SocketStream::SocketStream(rc_ptr<Socket> socket, u32 writeTimeoutMs)
    : socket_(std::move(socket)), writeTimeoutMs_(writeTimeoutMs) {}

u32 SocketStream::GetAvailable() {
  return socket_->GetAvailable();
}

void SocketStream::Close() {
  socket_->Close();
}

u32 SocketStream::Read(void* buffer, u32 count) {
  try {
    return socket_->Receive(buffer, count);
  } catch (const SocketException& error) {
    throw StreamException(error.GetCode(), std::string("SocketStream::Read():") + error.what());
  }
}

u32 SocketStream::Write(const void* buffer, u32 count) {
  const Lock lock(writeLock_);
  const DWORD start = GetTickCount();
  const auto* const bytes = static_cast<const u8*>(buffer);
  u32 budgetMs = writeTimeoutMs_;
  u32 sent = 0;
  while (sent < count) {
    try {
      sent += socket_->Send(bytes + sent, count - sent, budgetMs);
    } catch (const SocketException& error) {
      throw StreamException(error.GetCode(),
                            "SocketStream::Write() failed " + Progress(sent, count) + ": " + error.what());
    }
    // Checked after the last piece as well: a write that took too long has failed, even if all of it went out.
    const DWORD spent = GetTickCount() - start;
    if (spent >= writeTimeoutMs_) {
      throw StreamException(WSAETIMEDOUT, "SocketStream::Write() timed-out " + Progress(sent, count));
    }
    budgetMs = writeTimeoutMs_ - spent;
  }
  return sent;
}

}  // namespace kestrun
