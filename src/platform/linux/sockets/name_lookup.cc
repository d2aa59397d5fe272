#include "platform/linux/sockets/name_lookup.h"

#include <arpa/inet.h>
#include <arpa/nameser.h>
#include <netdb.h>
#include <resolv.h>
#include <strings.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <memory>

namespace kestrun::platform {

namespace {

// The length of a DNS message has 16 bits.
constexpr int kLargestAnswer = 65535;

// One line of a hosts file: an address and its names. A line with another kind of address, such as IPv6, has no names
// here.
struct HostsLine {
  ::in_addr address{};
  std::vector<std::string> names;
};

// Reads a text line by line, without the cost of the library's streams.
class HostsReader {
 public:
  explicit HostsReader(const std::string& text) : text_(text) {}

  bool Next(HostsLine& result) {
    if (at_ >= text_.size()) return false;
    const std::size_t end = std::min(text_.find('\n', at_), text_.size());
    const std::string line = text_.substr(at_, end - at_);
    at_ = end + 1;
    result.names = SplitWords(line.substr(0, line.find('#')));
    if (result.names.empty()) return true;
    const std::string address = result.names.front();
    result.names.erase(result.names.begin());
    if (inet_pton(AF_INET, address.c_str(), &result.address) != 1) result.names.clear();
    return true;
  }

 private:
  static std::vector<std::string> SplitWords(const std::string& line) {
    constexpr char kBlanks[] = " \t\r";
    std::vector<std::string> words;
    for (std::size_t at = line.find_first_not_of(kBlanks); at < line.size();) {
      const std::size_t end = std::min(line.find_first_of(kBlanks, at), line.size());
      words.push_back(line.substr(at, end - at));
      at = line.find_first_not_of(kBlanks, end);
    }
    return words;
  }

  const std::string& text_;
  std::size_t at_ = 0;
};

std::string ReadHostsFile() {
  const std::unique_ptr<std::FILE, int (*)(std::FILE*)> file(std::fopen("/etc/hosts", "re"), std::fclose);
  std::string text;
  char piece[4096];
  for (std::size_t length; file && (length = std::fread(piece, 1, sizeof piece, file.get())) > 0;) {
    text.append(piece, length);
  }
  return text;
}

// True for a text that can be the name of a host; other texts are not sent to a name server.
bool CanBeName(const std::string& name) {
  const auto isUsual = [](unsigned char c) { return std::isalnum(c) || c == '-' || c == '.' || c == '_'; };
  return !name.empty() && std::all_of(name.begin(), name.end(), isUsual);
}

class Answer {
 public:
  Answer() : bytes_(kLargestAnswer) {}

  // Asks the name servers, with the search list of resolv.conf.
  bool Ask(const std::string& name, ns_type type) {
    const int length = res_search(name.c_str(), ns_c_in, type, bytes_.data(), kLargestAnswer);
    return length > 0 && ns_initparse(bytes_.data(), std::min(length, kLargestAnswer), &message_) == 0;
  }

  std::vector<::in_addr> Addresses() {
    std::vector<::in_addr> addresses;
    ns_rr record;
    for (int index = 0; NextRecord(index, ns_t_a, record); ++index) {
      if (ns_rr_rdlen(record) != sizeof(::in_addr)) continue;
      std::memcpy(&addresses.emplace_back(), ns_rr_rdata(record), sizeof(::in_addr));
    }
    return addresses;
  }

  std::string Name() {
    ns_rr record;
    int index = 0;
    char name[NS_MAXDNAME];
    if (!NextRecord(index, ns_t_ptr, record)) return "";
    const int length = dn_expand(ns_msg_base(message_), ns_msg_end(message_), ns_rr_rdata(record), name, sizeof name);
    return length > 0 ? name : "";
  }

 private:
  // The first record of the type at or behind the index.
  bool NextRecord(int& index, ns_type type, ns_rr& record) {
    for (; index < ns_msg_count(message_, ns_s_an); ++index) {
      if (ns_parserr(&message_, ns_s_an, index, &record) == 0 && ns_rr_type(record) == type) return true;
    }
    return false;
  }

  std::vector<unsigned char> bytes_;
  ns_msg message_{};
};

std::string ReverseName(::in_addr address) {
  const std::uint32_t bits = ntohl(address.s_addr);
  std::string name;
  for (int shift = 0; shift < 32; shift += 8) name += std::to_string(bits >> shift & 0xff) + ".";
  return name + "in-addr.arpa";
}

}  // namespace

std::vector<::in_addr> FindAddresses(const std::string& hosts, const std::string& name) {
  std::vector<::in_addr> addresses;
  HostsReader reader(hosts);
  for (HostsLine line; reader.Next(line);) {
    const auto isMeant = [&](const std::string& other) { return strcasecmp(other.c_str(), name.c_str()) == 0; };
    if (std::any_of(line.names.begin(), line.names.end(), isMeant)) addresses.push_back(line.address);
  }
  return addresses;
}

std::string FindName(const std::string& hosts, ::in_addr address) {
  HostsReader reader(hosts);
  for (HostsLine line; reader.Next(line);) {
    if (!line.names.empty() && line.address.s_addr == address.s_addr) return line.names.front();
  }
  return "";
}

std::vector<::in_addr> LookUpAddresses(const std::string& name) {
  std::vector<::in_addr> addresses(1);
  if (inet_aton(name.c_str(), addresses.data()) != 0) return addresses;
  h_errno = HOST_NOT_FOUND;
  if (!CanBeName(name)) return {};
  addresses = FindAddresses(ReadHostsFile(), name);
  // "localhost" means this machine, even if the hosts file does not list it.
  if (addresses.empty() && strcasecmp(name.c_str(), "localhost") == 0) return {{htonl(INADDR_LOOPBACK)}};
  Answer answer;
  return addresses.empty() && answer.Ask(name, ns_t_a) ? answer.Addresses() : addresses;
}

std::string LookUpName(::in_addr address) {
  h_errno = HOST_NOT_FOUND;
  const std::string name = FindName(ReadHostsFile(), address);
  Answer answer;
  return name.empty() && answer.Ask(ReverseName(address), ns_t_ptr) ? answer.Name() : name;
}

}  // namespace kestrun::platform
