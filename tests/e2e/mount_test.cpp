// krfs mount end to end: a virtual token of each dialect mounted through
// pcscd and worked by ordinary programs (ls, cat, cp, cmp, dd, mkdir, rm).
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <string>
#include <thread>

#include "e2e/api_session.h"
#include "harness/harness.h"

namespace {

using namespace krfs::harness;
using namespace krfs::e2e;

struct Dialect {
    const char* name;
    const char* dialect;
    const char* id;
    bool shim;                     // pcsc-lite connects an R2 token only through the PC/SC shim
    const char* applet = nullptr;  // binding passes Joker by: the mount names it
};

const Dialect kDialects[] = {
    {"Pro", "pro", "01020304", false},
    {"R2", "r2", "A1B2C3D4", true},
    {"Gost", "gost", "0102030405060708", false},
    {"DataStore", "datastore", "0102030405060708", false},
    {"IDProtect", "idprotect", "0102030405060708", false},
    {"Java", "java", "0102030405060708", false},
    {"Joker", "joker", "0102030405060708", false, "2204"},
};

bool mounted(const std::string& dir) {
    return readFile("/proc/self/mountinfo").find(" " + dir + " ") != std::string::npos;
}

// `krfs mount -f` in a process of its own. Whatever happens to the test, the
// mount and the process end with this object.
class Mount {
public:
    Mount(const Dialect& d, const std::string& reader, const std::string& dir, bool login)
        : dir_(dir) {
        std::vector<std::string> argv{"env", "KRFS_PIN=12345678"};
        if (d.shim) {
            const char* asan = std::getenv("ASAN_OPTIONS");
            argv.push_back(std::string("LD_PRELOAD=") + KRFS_PCSC_SHIM_PATH);
            argv.push_back(std::string("ASAN_OPTIONS=") + (asan ? asan : "") +
                           ":verify_asan_link_order=0");
        }
        argv.insert(argv.end(), {KRFS_CLI_PATH, "-r", reader, "--vendor", "F001"});
        if (d.applet) argv.insert(argv.end(), {"--applet", d.applet});
        if (login) argv.insert(argv.end(), {"--login", "--pin-env", "KRFS_PIN"});
        argv.insert(argv.end(), {"mount", "-f", dir});
        process_ = std::make_unique<ChildProcess>(argv, log_.file("mount.log"));
        for (const auto until = Clock::now() + kDeadline; !mounted(dir_);
             std::this_thread::sleep_for(milliseconds{10}))
            if (!process_->running() || Clock::now() >= until)
                throw std::runtime_error("not mounted; krfs says:\n" + process_->log());
    }
    ~Mount() {
        process_->stop();
        if (mounted(dir_)) ::umount2(dir_.c_str(), MNT_DETACH);
        if (::testing::Test::HasFailure())
            std::cerr << "---- krfs mount log ----\n" << process_->log() << "----\n";
    }
    // Waits for the process to end by itself; true if it did, with status 0.
    bool endedCleanly() { return process_->waitExit() && process_->exitedWith(0); }
    void signal(int sig) { process_->signal(sig); }

private:
    std::string dir_;
    TempDir log_{"krfs-mount-log"};
    std::unique_ptr<ChildProcess> process_;
};

// One shell command run in `cwd`, the mount unless said; $T is the test's own
// directory.
struct Step {
    std::string command;
    bool ok;
    std::string says;  // in its output; all of it if it ends with a newline
};

void run(const std::string& cwd, const std::string& tmp, const Step& s) {
    writeFile(tmp + "/step.sh", s.command);
    const std::string out = tmp + "/step.out";
    // A command stuck on the mount fails the step instead of hanging the test.
    const int raw = std::system(
        ("cd " + cwd + " && T=" + tmp + " timeout -k 5 20 sh " + tmp + "/step.sh >" + out + " 2>&1")
            .c_str());
    const std::string said = readFile(out);
    EXPECT_EQ(WIFEXITED(raw) && WEXITSTATUS(raw) == 0, s.ok) << s.command << "\n" << said;
    if (!s.says.empty() && s.says.back() == '\n')
        EXPECT_EQ(said, s.says) << s.command;
    else
        EXPECT_NE(said.find(s.says), std::string::npos) << s.command << " says\n" << said;
}

class MountTest : public ::testing::TestWithParam<Dialect> {};

TEST_P(MountTest, OrdinaryProgramsWorkTheToken) {
    if (::access("/dev/fuse", R_OK | W_OK) != 0 || ::access("/bin/fusermount3", X_OK) != 0)
        GTEST_SKIP() << "no usable /dev/fuse or fusermount3 here: krfs mount is not tested";
    const Dialect& d = GetParam();
    Pcscd pcscd;
    VToken card(pcscd, 0, madeToken(d.dialect, d.id, "12345678", "mount"));
    TempDir tmp("krfs-mount");
    const std::string mnt = tmp.file("mnt");
    ASSERT_EQ(::mkdir(mnt.c_str(), 0755), 0);
    writeFile(tmp.file("data"), pattern(3000));
    writeFile(tmp.file("secret"), "top secret\n");
    writeFile(tmp.file("more"), pattern(100));

    const Step withLogin[] = {
        {"mkdir -p 2000/2100/2110 && cp $T/data 2000/0001 && cmp $T/data 2000/0001", true, ""},
        {"umask 077; cp $T/secret 2000/0002", true, ""},
        {"ls -l -R | awk 'NF > 2 {print $1, $5, $9}'", true,
         "drwxr-xr-x 0 2000\n-rw-r--r-- 3000 0001\n-rw------- 11 0002\ndrwxr-xr-x 0 2100\n"
         "drwxr-xr-x 0 2110\n"},
        // The same edits on the file and on the local copy.
        {"for f in 2000/0001 $T/data; do printf XYZ | dd of=$f bs=1 seek=10 conv=notrunc "
         "status=none; done && cmp $T/data 2000/0001 && stat -c %s 2000/0001",
         true, "3000\n"},
        {"cat $T/more | tee -a $T/data >> 2000/0001 && cmp $T/data 2000/0001 && stat -c %s "
         "2000/0001",
         true, "3100\n"},
        {"truncate -s 1000 2000/0001 $T/data && cmp $T/data 2000/0001", true, ""},
        {"touch 2000/notes", false, "Invalid argument"},
        {"mkdir 2000/abcd", false, "Invalid argument"},
        {"cat 2000/000a", false, "No such file or directory"},
        {"mkdir 2000", false, "File exists"},
        {"mv 2000/0001 2000/0003", false, "Operation not supported"},
        {"ln 2000/0001 2000/0004", false, "Operation not supported"},
        {"chmod 600 2000/0001", false, "Operation not permitted"},
        {"rm -r 2000/2100 && ls 2000 && cat 2000/0002", true, "0001\n0002\ntop secret\n"},
    };
    {
        Mount m(d, card.reader(), mnt, true);
        for (const Step& s : withLogin) run(mnt, tmp.path(), s);
        m.signal(SIGTERM);
        EXPECT_TRUE(m.endedCleanly());
        EXPECT_FALSE(mounted(mnt));
    }

    const Step withoutLogin[] = {
        {"cat 2000/0002", false, "Permission denied"},
        {"cmp $T/data 2000/0001 && ls 2000", true, "0001\n0002\n"},
        // A Pro card makes the file without the PIN, then refuses its content.
        {"cp $T/secret 2000/0005", false, "Permission denied"},
    };
    Mount m(d, card.reader(), mnt, false);
    for (const Step& s : withoutLogin) run(mnt, tmp.path(), s);
    card.vanish();
    // A read reaches the card; some dialects list from what the library holds.
    run(mnt, tmp.path(), {"cat 2000/0001", false, "Input/output error"});
    card.comeBack();
    run(mnt, tmp.path(), {"cmp $T/data 2000/0001", true, ""});
    run(tmp.path(), tmp.path(), {"fusermount3 -u " + mnt, true, ""});
    EXPECT_TRUE(m.endedCleanly());
    EXPECT_FALSE(mounted(mnt));
}

INSTANTIATE_TEST_SUITE_P(Dialects, MountTest, ::testing::ValuesIn(kDialects),
                         [](const auto& info) { return std::string(info.param.name); });

}  // namespace
