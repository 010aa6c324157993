// Log sets made by tests of `sa-host view`. No state.
#include "tests/host/log_set.h"

#include <filesystem>
#include <fstream>

namespace {

void append_word(std::string *out, unsigned value) {
    for (int i = 0; i < 4; ++i) {
        out->push_back(static_cast<char>(value >> (8 * i) & 0xff));
    }
}

}  // namespace

void set_write(const std::string &dir, const std::string &name, const std::string &text) {
    std::filesystem::create_directories(dir);
    std::ofstream file(dir + "/" + name, std::ios::binary);
    file << text;
    ASSERT_TRUE(file.good()) << dir << "/" << name;
}

std::string set_make(const temporary_dir &dir, const std::string &name) {
    const std::string path = dir.path + "/" + name;
    for (const char *file : {"getprop.log", "ifconfig.log", "ls_tmp.log", "lsmod.log", "ps.log", "route.log",
                             "bugreport.log", "zr3360regs.log"}) {
        set_write(path, file, "x\n");
    }
    set_write(path + "/log", "logcat.log", "");
    return path;
}

std::string set_capture(const std::vector<std::pair<unsigned, unsigned>> &times) {
    // Ethernet, IPv4 10.0.0.1 to 10.0.0.2, UDP from port 1000 to port 9 without data.
    const std::string packet(
        "\0\0\0\0\0\0\0\0\0\0\0\0\x08\0\x45\0\0\x1c\0\0\0\0\x40\x11\0\0\x0a\0\0\1\x0a\0\0\2"
        "\x03\xe8\0\x09\0\x08\0\0",
        42);
    std::string out("\xd4\xc3\xb2\xa1\2\0\4\0\0\0\0\0\0\0\0\0\xff\xff\0\0\1\0\0\0", 24);
    for (const auto &time : times) {
        append_word(&out, time.first);
        append_word(&out, time.second);
        append_word(&out, static_cast<unsigned>(packet.size()));
        append_word(&out, static_cast<unsigned>(packet.size()));
        out += packet;
    }
    return out;
}
