// SPDX-License-Identifier: GPL-2.0-only
//
// Apart from the tests, because the host's interface flags have the names of the kernel layer's.
#include "tests/ports/tunnel_device.h"

#include <fcntl.h>
#include <linux/if_tun.h>
#include <net/if.h>
#include <sys/ioctl.h>

#include <algorithm>

namespace tarvelo::ports {

owned_fd open_tunnel_device(std::string_view name) {
  owned_fd file{open("/dev/net/tun", O_RDWR | O_NONBLOCK | O_CLOEXEC)};
  ifreq request{};
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  std::copy_n(name.begin(), std::min<std::size_t>(name.size(), IFNAMSIZ - 1), request.ifr_name);
  if (file && ioctl(file.get(), TUNSETIFF, &request) != 0) file.reset();
  return file;
}

}  // namespace tarvelo::ports
