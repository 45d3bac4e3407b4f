#include "harness/namespaces.h"

#include <fcntl.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>

namespace krfs::harness {

namespace {

[[noreturn]] void refuse(const std::string& step) {
    int e = errno;
    std::string why = step + ": " + std::strerror(e);
    if (e == EPERM || e == EACCES)
        why +=
            " (the end-to-end tests need CAP_SYS_ADMIN and CAP_NET_ADMIN: run them as "
            "root, or in a privileged container)";
    throw std::runtime_error("cannot enter a private mount and network namespace: " + why);
}

void bringLoopbackUp() {
    int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) refuse("socket for the loopback interface");
    ifreq request{};
    std::strncpy(request.ifr_name, "lo", IFNAMSIZ - 1);
    bool ok = ::ioctl(fd, SIOCGIFFLAGS, &request) == 0;
    if (ok) {
        request.ifr_flags |= IFF_UP | IFF_RUNNING;
        ok = ::ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    }
    int e = errno;
    ::close(fd);
    errno = e;
    if (!ok) refuse("bringing the loopback interface up");
}

}  // namespace

void enterPrivateNamespaces() {
    if (::unshare(CLONE_NEWNS | CLONE_NEWNET) != 0) refuse("unshare(CLONE_NEWNS | CLONE_NEWNET)");
    // Without this our tmpfs would propagate back to the host's /run.
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        refuse("making / recursively private");
    if (::mkdir("/run/pcscd", 0755) != 0 && errno != EEXIST) refuse("mkdir /run/pcscd");
    if (::mount("krfs-pcscd", "/run/pcscd", "tmpfs", MS_NOSUID | MS_NODEV, "mode=0755") != 0)
        refuse("mounting a tmpfs over /run/pcscd");
    bringLoopbackUp();
}

}  // namespace krfs::harness
