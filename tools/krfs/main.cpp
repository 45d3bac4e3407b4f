// krfs: a smart card or security token as a small file system, from the shell.
#include <CLI/CLI.hpp>
#include <iostream>

#include "commands.h"
#include "mount.h"

using namespace krfstool;

int main(int argc, char** argv) {
    CLI::App app{
        "krfs: work with the files of a smart card or USB security token.\n"
        "Paths are hexadecimal identifiers separated by '/', starting at the vendor\n"
        "directory (--vendor): \"1000/0005\" is file 0005 in directory 1000."};
    app.require_subcommand(1);
    // Common options may also follow the subcommand: krfs ls --reader X.
    app.fallthrough();
    app.set_help_all_flag("--help-all", "Show the help of every subcommand");

    Common c;
    std::string vendor = "0", applet;
    app.add_option("-r,--reader", c.options.reader,
                   "The reader (default: the first one holding a token)");
    app.add_option("--vendor", vendor, "The vendor directory that paths start from (hex)")
        ->capture_default_str();
    app.add_option("--applet", applet, "Select this applet first (hex, e.g. 1002)");
    app.add_option("--log", c.options.log, "Append every APDU to this file");
    app.add_option("--pin-env", c.pin.env, "Read the PIN from this environment variable");
    app.add_flag("--pin-stdin", c.pin.stdin_, "Read the PIN from a line of standard input");
    app.add_flag("--login", c.login, "Log in before the command (for private files)");

    auto* readers =
        app.add_subcommand("readers", "List the readers and whether each holds a token");
    readers->add_flag("--json", c.json, "JSON output");

    auto* info = app.add_subcommand(
        "info", "Show the token's identifier, model, label and PIN limits and attempts left");
    info->add_flag("--json", c.json, "JSON output");

    std::string path, file;
    bool longFormat = false, recursive = false, isPrivate = false;
    auto* ls = app.add_subcommand("ls", "List a directory");
    ls->add_option("PATH", path, "The directory (default: the vendor directory)");
    ls->add_flag("-l", longFormat, "Sizes and the private flag");
    ls->add_flag("-R", recursive, "List sub-directories too");
    ls->add_flag("--json", c.json, "JSON output");

    auto* cat = app.add_subcommand("cat", "Write a file's content to standard output");
    cat->add_option("PATH", path, "The file")->required();

    auto* get = app.add_subcommand("get", "Copy a file from the token to a local file");
    get->add_option("PATH", path, "The file on the token")->required();
    get->add_option("FILE", file, "The local file")->required();

    auto* put = app.add_subcommand(
        "put", "Copy a local file to the token, creating it at the right size if missing");
    put->add_option("FILE", file, "The local file")->required();
    put->add_option("PATH", path, "The file on the token")->required();
    put->add_flag("--private", isPrivate, "Create the file so that reading needs the PIN");

    auto* mkdir = app.add_subcommand("mkdir", "Create a directory and any missing parents");
    mkdir->add_option("PATH", path, "The directory")->required();

    auto* rm = app.add_subcommand("rm", "Delete a file, or a directory with -r");
    rm->add_option("PATH", path, "The file or directory")->required();
    rm->add_flag("-r", recursive, "Delete a directory and everything in it");

    app.add_subcommand("login", "Check a PIN against the token");

    auto* passwd = app.add_subcommand("passwd", "Change the user PIN (asks the current one first)");
    passwd->add_option("--new-pin-env", c.newPinEnv,
                       "Read the new PIN from this environment variable");

    auto* keys = app.add_subcommand(
        "keys",
        "List the key containers: path, id, key size in bytes, whether a private key is\n"
        "there, and the certificate's serial number and subject");
    keys->add_flag("--json", c.json, "JSON output (with the certificate, DER in hex)");

    std::string keyPath, in, out;
    bool pkcs1 = false;
    auto* decrypt = app.add_subcommand(
        "decrypt",
        "Decrypt one block with the private key of a container (always asks the PIN;\n"
        "with the block on standard input, the PIN comes first, or from --pin-env)");
    decrypt->add_option("KEYPATH", keyPath, "The container, as krfs keys shows it")->required();
    decrypt->add_option("--in", in, "The block, exactly the key's length (default: stdin)");
    decrypt->add_option("--out", out, "Where the result goes (default: stdout)");
    decrypt->add_flag("--pkcs1", pkcs1,
                      "Remove PKCS#1 v1.5 encryption padding; any other block fails");

    std::string mountpoint;
    bool foreground = false;
    auto* mount = app.add_subcommand(
        "mount",
        "Serve the vendor directory as a file system at MOUNTPOINT (fusermount3 -u unmounts)");
    mount->add_option("MOUNTPOINT", mountpoint, "An existing directory")->required();
    mount->add_flag("-f,--foreground", foreground,
                    "Stay in the foreground until unmounted or interrupted");

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        // Help is a success; any other word of the command line is a usage error.
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;
    }

    try {
        c.options.vendor = static_cast<unsigned>(std::stoul(vendor, nullptr, 16)) & 0xFFFF;
        if (!applet.empty()) c.options.applet = static_cast<long>(std::stoul(applet, nullptr, 16));
        if (readers->parsed()) return cmdReaders(c);
        if (info->parsed()) return cmdInfo(c);
        if (ls->parsed()) return cmdLs(c, path, longFormat, recursive);
        if (cat->parsed()) return cmdCat(c, path);
        if (get->parsed()) return cmdGet(c, path, file);
        if (put->parsed()) return cmdPut(c, file, path, isPrivate);
        if (mkdir->parsed()) return cmdMkdir(c, path);
        if (rm->parsed()) return cmdRm(c, path, recursive);
        if (app.got_subcommand("login")) return cmdLogin(c);
        if (passwd->parsed()) return cmdPasswd(c);
        if (mount->parsed()) return cmdMount(c, mountpoint, foreground);
        if (keys->parsed()) return cmdKeys(c);
        if (decrypt->parsed()) return cmdDecrypt(c, keyPath, in, out, pkcs1);
    } catch (const Failure& f) {
        std::cerr << "krfs: " << f.what() << ": " << describe(f.code) << "\n";
        return 1;
    } catch (const std::exception& e) {
        std::cerr << "krfs: " << e.what() << "\n";
        return 2;
    }
    return 2;
}
