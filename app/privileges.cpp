// SPDX-License-Identifier: GPL-2.0-only
#include "app/privileges.h"

#include <fmt/format.h>
#include <grp.h>
#include <sys/capability.h>
#include <sys/prctl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <system_error>

#include "app/input_error.h"

namespace tarvelo::app {

namespace {

/// The kernel's overflow user and group: nobody and nogroup, who own no file.
constexpr uid_t nobody = 65534;
constexpr gid_t nogroup = 65534;

void require(bool good, const char* what) {
  if (!good) throw std::system_error(errno, std::generic_category(), what);
}

/// Permitted and effective: `kept` and no other; inheritable and ambient: none.
void keep_capabilities(std::initializer_list<cap_value_t> kept) {
  const std::unique_ptr<std::remove_pointer_t<cap_t>, int (*)(void*)> set(cap_init(), cap_free);
  require(set != nullptr, "cap_init");
  for (const cap_flag_t flag : {CAP_PERMITTED, CAP_EFFECTIVE}) {
    require(kept.size() == 0 || cap_set_flag(set.get(), flag, static_cast<int>(kept.size()),
                                             kept.begin(), CAP_SET) == 0,
            "cap_set_flag");
  }
  require(cap_set_proc(set.get()) == 0, "cap_set_proc");
}

/// Numbers that the user namespace does not map are refused with EINVAL; setgroups() with EPERM.
bool become_nobody() {
  const bool groups_left = setgroups(0, nullptr) == 0;
  if (setresgid(nogroup, nogroup, nogroup) != 0) return false;
  require(groups_left, "setgroups");
  require(setresuid(nobody, nobody, nobody) == 0, "setresuid");
  return true;
}

}  // namespace

void drop_privileges() {
  if (geteuid() == 0 && !become_nobody() && errno != EINVAL) {
    throw input_error(fmt::format(
        "cannot give up being root: {}; start it with CAP_SETUID and CAP_SETGID as well, or as "
        "another user with CAP_NET_RAW",
        std::strerror(errno)));
  }
  keep_capabilities({});
  require(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0, "no_new_privs");
#ifdef TARVELO_CHECKED
  // A new identity makes a process unreadable to its own leak check.
  require(prctl(PR_SET_DUMPABLE, 1, 0, 0, 0) == 0, "dumpable");
#endif
}

void keep_unmounting_privileges() {
  if (geteuid() == 0) keep_capabilities({CAP_SYS_ADMIN, CAP_DAC_OVERRIDE});
}

}  // namespace tarvelo::app
