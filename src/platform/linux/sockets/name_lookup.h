// The names of hosts and their IPv4 addresses: from a hosts file first, then from the domain name system.
//
// The C library's getaddrinfo loads shared libraries of the system to look names up, and a static program can't rely on
// finding those that it was linked with. What is used here loads nothing.
// Threads: any. Look-ups in the domain name system block, as resolv.conf says for how long.
#ifndef KESTRUN_PLATFORM_LINUX_SOCKETS_NAME_LOOKUP_H_
#define KESTRUN_PLATFORM_LINUX_SOCKETS_NAME_LOOKUP_H_

#include <netinet/in.h>

#include <string>
#include <vector>

namespace kestrun::platform {

// The addresses of a name, whose case does not matter, and the first name of an address, in a text like /etc/hosts.
// Empty if it has none.
std::vector<::in_addr> FindAddresses(const std::string& hosts, const std::string& name);
std::string FindName(const std::string& hosts, ::in_addr address);

// The same in /etc/hosts, then in the domain name system. If empty, h_errno tells why.
std::vector<::in_addr> LookUpAddresses(const std::string& name);
std::string LookUpName(::in_addr address);

}  // namespace kestrun::platform

#endif  // KESTRUN_PLATFORM_LINUX_SOCKETS_NAME_LOOKUP_H_
