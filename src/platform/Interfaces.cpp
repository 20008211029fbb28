#include "platform/Interfaces.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <netdb.h>
#include <netinet/in.h>
#include <unistd.h>

#include <array>

namespace parlavox::platform {

std::vector<LocalAddress> localIPv4Addresses() {
  std::vector<LocalAddress> entries;
  ifaddrs* list = nullptr;
  if (getifaddrs(&list) != 0) {
    return entries;
  }
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr == nullptr || entry->ifa_addr->sa_family != AF_INET) {
      continue;
    }
    if ((entry->ifa_flags & IFF_LOOPBACK) != 0U) {
      continue;
    }
    std::array<char, NI_MAXHOST> host{};
    if (getnameinfo(entry->ifa_addr, sizeof(sockaddr_in), host.data(), host.size(), nullptr, 0,
                    NI_NUMERICHOST) != 0) {
      continue;
    }
    entries.push_back({host.data(), entry->ifa_name});
  }
  freeifaddrs(list);
  return entries;
}

std::string hostName() {
  std::array<char, 256> name{};
  if (gethostname(name.data(), name.size() - 1) != 0) {
    return {};
  }
  return name.data();
}

}  // namespace parlavox::platform
