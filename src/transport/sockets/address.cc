#include "transport/sockets/address.h"

#include <cstdlib>

#include "transport/sockets/local_host.h"

namespace kestrun {

namespace {

struct Kind {
  u32 kind;
  const char* word;
};
constexpr Kind kKinds[] = {
    {Address::kIpc, "ipc"}, {Address::kTcp, "tcp"}, {Address::kUdp, "udp"}, {Address::kInt, "int"}};

u32 KindOfWord(const std::string& word) {
  for (const Kind& kind : kKinds) {
    if (word == kind.word) return kind.kind;
  }
  return Address::kNone;
}

const char* WordOfKind(u32 number) {
  for (const Kind& kind : kKinds) {
    if (number == kind.kind) return kind.word;
  }
  return "";
}

bool IsInternetKind(u32 kind) {
  return kind == Address::kTcp || kind == Address::kUdp;
}

}  // namespace

AddressException::AddressException(const std::string& message) : SystemException(message, "AddressException") {}

Address::Address(u32 kind, const std::string& text) : kind_(kind), text_(text) {
  if (!IsValid()) throw AddressException("Invalid Address: " + text);
}

Address::Address(const std::string& fullForm) {
  if (fullForm.empty()) return;
  const size_t colon = fullForm.find(':');
  if (colon == std::string::npos) throw AddressException("Invalid Address: " + fullForm);
  kind_ = KindOfWord(fullForm.substr(0, colon));
  text_ = fullForm.substr(colon + 1);
  if (!IsValid()) throw AddressException("Invalid Address: " + fullForm);
}

Address::Address(const SocketAddress& address, u32 kind, bool resolve)
    : kind_(kind), text_(address.ToString(resolve)) {}

std::string Address::ToString() const {
  return kind_ == kNone ? std::string() : std::string(WordOfKind(kind_)) + ":" + text_;
}

std::string Address::GetHost() const {
  if (kind_ == kNone) return {};
  return IsInternetKind(kind_) ? text_.substr(0, text_.find('/')) : GetLocalHostName();
}

bool Address::IsValid() const {
  if (kind_ == kIpc || kind_ == kInt) return true;
  SocketAddress ignored;
  return GetSocketAddress(ignored);
}

// An ipc or int address names something on this machine by its kind.
bool Address::IsLocal() const {
  if (kind_ == kIpc || kind_ == kInt) return true;
  SocketAddress address;
  return GetSocketAddress(address) && address.IsLocal();
}

bool Address::GetSocketAddress(SocketAddress& out) const {
  if (!IsInternetKind(kind_)) return false;
  const size_t slash = text_.find('/');
  if (slash == std::string::npos) return false;
  // 0 is no port that can be connected to.
  const long port = std::strtol(text_.c_str() + slash + 1, nullptr, 10);
  if (port < 1 || port > 65535) return false;
  out = SocketAddress(text_.substr(0, slash), static_cast<u16>(port));
  return out.IsValid();
}

bool operator<(const Address& left, const Address& right) {
  const auto leftKind = static_cast<i32>(left.kind_);
  const auto rightKind = static_cast<i32>(right.kind_);
  return leftKind != rightKind ? leftKind < rightKind : left.text_ < right.text_;
}

}  // namespace kestrun
