// krfs mount: a token's files as a FUSE file system that every program can use.
#pragma once

#include <string>

#include "commands.h"

namespace krfstool {

// Serves the vendor directory of the token at `mountpoint` until it is
// unmounted (fusermount3 -u) or the process gets SIGINT, SIGTERM or SIGHUP.
// Without `foreground` it returns to the shell once the mount stands.
int cmdMount(const Common& c, const std::string& mountpoint, bool foreground);

}  // namespace krfstool
