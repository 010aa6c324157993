// The root file system of a handset: devices, /proc, the size of /data, the SD card, what options leave out.
#include <fcntl.h>
#include <sys/statfs.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <sstream>

#include "tests/desk/fixture.h"

static uint64_t free_bytes(desk *h, const std::string &path) {
    struct statfs fs = {};
    int fd = desk_open(h, path, O_RDONLY | O_DIRECTORY);
    fstatfs(fd, &fs);
    close(fd);
    return static_cast<uint64_t>(fs.f_bavail) * static_cast<uint64_t>(fs.f_bsize);
}

static std::string host_file(const std::string &path) {
    std::ifstream in(path);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

TEST(RootFs, DataHasExactlyItsSize) {
    for (uint64_t blocks : {1000u, 4097u, 16384u}) {
        desk_options options = handset::no_agent();
        options.data_size = blocks * 4096;
        handset set(options);
        BOOTED(set);
        EXPECT_EQ(desk_shell(set.h, "stat -f -c '%S %b' /data").output, "4096 " + std::to_string(blocks) + "\n");
    }
}

TEST(RootFs, DataIsFilledToTheBlock) {
    handset set;
    BOOTED(set);
    for (uint64_t wanted : {3145728u, 3145728u - 4096u, 3145728u + 4096u, 0u}) {
        ASSERT_TRUE(desk_fill_data(set.h, wanted)) << desk_error();
        EXPECT_EQ(free_bytes(set.h, "/data"), wanted);
    }
}

TEST(RootFs, DataDirectoriesHaveThePlatformsModes) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(desk_owner(set.h, "/data"), "0771 1000:1000");
    EXPECT_EQ(desk_owner(set.h, "/data/local"), "0751 0:0");
    EXPECT_EQ(desk_owner(set.h, "/data/local/tmp"), "0771 2000:2000");
    EXPECT_EQ(desk_owner(set.h, "/data/local/log"), "0771 2000:2000");
    EXPECT_EQ(desk_owner(set.h, "/data/property"), "0700 0:0");
}

TEST(RootFs, DevicesHaveThePlatformsNumbersAndModes) {
    handset set;
    BOOTED(set);
    struct stat st;
    ASSERT_TRUE(desk_stat(set.h, "/dev/ptmx", &st));
    EXPECT_TRUE(S_ISCHR(st.st_mode));
    EXPECT_EQ(st.st_rdev, makedev(5, 2));
    EXPECT_EQ(desk_owner(set.h, "/dev/ptmx"), "0666 0:0");
    for (const char *path : {"/dev/null", "/dev/zero", "/dev/full", "/dev/random", "/dev/urandom", "/dev/tty"}) {
        EXPECT_EQ(desk_owner(set.h, path), "0666 0:0") << path;
    }
    int master = desk_open(set.h, "/dev/ptmx", O_RDWR | O_NOCTTY);
    ASSERT_GE(master, 0);
    EXPECT_EQ(desk_owner(set.h, "/dev/pts/0"), "0600 0:0") << "slaves of an instance without options";
    close(master);
    EXPECT_FALSE(desk_exists(set.h, "/dev/kmsg"));
}

TEST(RootFs, ConsoleLevelIsNotTheMachines) {
    std::string machine = host_file("/proc/sys/kernel/printk");
    desk_options options = handset::no_agent();
    handset set(options);
    BOOTED(set);
    EXPECT_EQ(desk_file_text(set.h, "/proc/sys/kernel/printk"), "4\t4\t1\t7\n");
    EXPECT_EQ(desk_shell(set.h, "echo 1 2 3 4 > /proc/sys/kernel/printk").status, 0);
    EXPECT_EQ(desk_file_text(set.h, "/proc/sys/kernel/printk"), "1 2 3 4\n");
    EXPECT_EQ(host_file("/proc/sys/kernel/printk"), machine);
    EXPECT_NE(desk_shell(set.h, "echo 1 > /proc/sys/kernel/sysrq").status, 0) << "the machine's settings are read-only";
    EXPECT_NE(desk_shell(set.h, "echo h > /proc/sysrq-trigger").status, 0);
}

TEST(RootFs, QueueOfLogDatagramsHasThePlatformsLength) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(desk_shell(set.h, "cat /proc/sys/net/unix/max_dgram_qlen").output, "600\n");
}

TEST(RootFs, ShellIsMkshAndToolsAreFound) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(desk_shell(set.h, "echo ${KSH_VERSION%% R*}").output, "@(#)MIRBSD KSH\n");
    EXPECT_EQ(desk_link_target(set.h, "/bin"), "system/bin");
    desk_result tools = desk_shell(set.h,
                                   "for t in cp date touch chmod mkdir rm ls cat echo sleep ps dmesg lsmod tar "
                                   "getprop setprop logcat busybox tcpdump; do command -v $t || echo no $t; done");
    EXPECT_EQ(tools.output.find("no "), std::string::npos) << tools.output;
    EXPECT_NE(tools.output.find("/system/xbin/tcpdump\n"), std::string::npos);
    EXPECT_EQ(desk_shell(set.h, "busybox echo it runs").output, "it runs\n");
}

TEST(RootFs, MountRecordsItsArguments) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(desk_shell(set.h, "mount -o remount,rw /dev/block/x; mount").status, 0);
    EXPECT_EQ(desk_file_text(set.h, "/dev/.desk/mount.calls"), "-o\tremount,rw\t/dev/block/x\n\n");
}

TEST(RootFs, OptionsLeaveFilesOut) {
    desk_options options = handset::no_agent();
    options.tmp = options.sd_card = options.config = options.log_dir = false;
    options.absent = {"/system/xbin", "/system/bin/bugreport"};
    handset set(options);
    BOOTED(set);
    for (const char *path : {"/tmp", "/storage/real_sd", "/system/etc/zr-qel-sa.cfg", "/data/local/log", "/system/xbin",
                             "/system/bin/bugreport"}) {
        EXPECT_FALSE(desk_exists(set.h, path)) << path;
    }
    EXPECT_NE(desk_shell(set.h, "mkdir /storage/real_sd/logs").status, 0) << "no directory without an SD card";
}

TEST(RootFs, FilesExistBeforeServicesStart) {
    desk_options options = handset::no_agent();
    desk_file note;
    note.path = "/data/deep/er/note";
    note.text = "early";
    note.mode = 0640;
    note.uid = 2000;
    note.gid = 1007;
    options.files = {note, rc_file("service reader /system/bin/sh -c \"cat /data/deep/er/note > /data/copy\"\n"
                                   "    class late_start\n    oneshot\n")};
    options.prepare = [](desk *h) { return desk_append_file(h, "/data/deep/er/note", " bird"); };
    handset set(options);
    BOOTED(set);
    EXPECT_EQ(desk_owner(set.h, "/data/deep/er/note"), "0640 2000:1007");
    EXPECT_TRUE(desk_wait_text(set.h, "/data/copy", "early bird"));
}

TEST(RootFs, SdCardKeepsItsFilesWhileUnmounted) {
    desk_options options = handset::no_agent();
    options.sd_card_size = 1 << 20;
    handset set(options);
    BOOTED(set);
    EXPECT_EQ(desk_shell(set.h, "stat -f -c %b /storage/real_sd").output, "256\n");
    ASSERT_TRUE(desk_write_file(set.h, "/storage/real_sd/kept", "on the card"));
    ASSERT_TRUE(desk_set_sd_card(set.h, false));
    EXPECT_FALSE(desk_exists(set.h, "/storage/real_sd"));
    ASSERT_TRUE(desk_set_sd_card(set.h, true));
    EXPECT_EQ(desk_file_text(set.h, "/storage/real_sd/kept"), "on the card");
    EXPECT_EQ(desk_file_text(set.h, "/sdcard/kept"), "on the card");
}

TEST(RootFs, SdCardCanBeMountedLater) {
    desk_options options = handset::no_agent();
    options.sd_card = false;
    handset set(options);
    BOOTED(set);
    ASSERT_TRUE(desk_set_sd_card(set.h, true));
    EXPECT_EQ(desk_shell(set.h, "echo x > /storage/real_sd/x").status, 0);
}

TEST(RootFs, ProgramsHaveTheTimeZone) {
    desk_options options = handset::no_agent();
    options.timezone = "DST-3";
    handset set(options);
    BOOTED(set);
    EXPECT_EQ(desk_shell(set.h, "date -d @0 +%H").output, "03\n");
    const desk_options plain = handset::no_agent();
    ASSERT_TRUE(desk_reboot(set.h, true, &plain)) << desk_error();
    EXPECT_EQ(desk_shell(set.h, "date -d @0 +%H").output, "00\n") << "UTC without a zone";
}

TEST(RootFs, NetworkHasTheLoopbackAlone) {
    handset set;
    BOOTED(set);
    std::string links = desk_file_text(set.h, "/proc/1/net/dev");
    EXPECT_NE(links.find(" lo:"), std::string::npos) << links;
    EXPECT_EQ(std::count(links.begin(), links.end(), ':'), 1) << links;
    EXPECT_EQ(desk_shell(set.h, "busybox ping -c 1 -W 5 127.0.0.1").status, 0);
}
