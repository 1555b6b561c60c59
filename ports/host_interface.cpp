// SPDX-License-Identifier: GPL-2.0-only
#include "ports/host_interface.h"

#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>

#include "ports/owned_fd.h"

namespace tarvelo::ports {

std::optional<host_interface> query_interface(const std::string& name) noexcept {
  if (name.size() >= IFNAMSIZ) return std::nullopt;
  const owned_fd control{socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)};
  if (!control) return std::nullopt;
  ifreq request{};
  std::copy(name.begin(), name.end(), request.ifr_name);

  host_interface found{};
  if (ioctl(control.get(), SIOCGIFINDEX, &request) != 0) return std::nullopt;
  found.index = request.ifr_ifindex;
  if (ioctl(control.get(), SIOCGIFMTU, &request) != 0) return std::nullopt;
  found.mtu = static_cast<u32>(request.ifr_mtu);
  if (ioctl(control.get(), SIOCGIFHWADDR, &request) != 0) return std::nullopt;
  found.type = request.ifr_hwaddr.sa_family;
  if (ioctl(control.get(), SIOCGIFFLAGS, &request) != 0) return std::nullopt;
  constexpr int carrying = IFF_UP | IFF_RUNNING;
  found.link_up = (request.ifr_flags & carrying) == carrying;
  return found;
}

}  // namespace tarvelo::ports
