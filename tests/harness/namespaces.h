// A private world for one test process: its own mounts, so /run/pcscd is a
// fresh tmpfs that no system pcscd shares, and its own network, so vpcd
// ports never meet another test's.
#pragma once

namespace krfs::harness {

// Unshares the mount and network namespaces of the calling process, makes /
// recursively private, mounts a tmpfs over /run/pcscd and brings the
// loopback interface up. Call it while the process has one thread.
// Throws std::runtime_error saying what was refused and why.
void enterPrivateNamespaces();

}  // namespace krfs::harness
