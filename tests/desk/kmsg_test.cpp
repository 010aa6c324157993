// Kernel messages: a stream of records, read once, split by short reads and never joined.
#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include "tests/desk/fixture.h"

static std::string read_some(int fd, size_t size) {
    std::string buf(size, '\0');
    ssize_t got = read(fd, &buf[0], size);
    return got < 0 ? "errno " + std::to_string(errno) : buf.substr(0, static_cast<size_t>(got));
}

static bool ready(int fd, int limit_ms) {
    struct pollfd wanted = {fd, POLLIN, 0};
    return poll(&wanted, 1, limit_ms) == 1;
}

TEST(Kmsg, LongRecordIsSplitAndNotJoined) {
    handset set;
    BOOTED(set);
    std::string first = "<6>[    1.000000] " + std::string(142, 'a') + "\n";
    std::string second = "<5>[    2.000000] short\n";
    ASSERT_EQ(first.size(), 161u);
    ASSERT_TRUE(desk_kmsg_feed(set.h, first));
    ASSERT_TRUE(desk_kmsg_feed(set.h, second));
    int fd = desk_open(set.h, "/proc/kmsg", O_RDONLY);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_some(fd, 99), first.substr(0, 99));
    EXPECT_EQ(read_some(fd, 99), first.substr(99)) << "62 bytes, although there is another record";
    EXPECT_EQ(read_some(fd, 99), second);
    EXPECT_TRUE(desk_kmsg_drained(set.h));
    close(fd);
}

TEST(Kmsg, HasNoEndOfFile) {
    handset set;
    BOOTED(set);
    int fd = desk_open(set.h, "/proc/kmsg", O_RDONLY | O_NONBLOCK);
    ASSERT_GE(fd, 0);
    EXPECT_EQ(read_some(fd, 99), "errno " + std::to_string(EAGAIN));
    ASSERT_TRUE(desk_kmsg_feed(set.h, "<6>x\n"));
    EXPECT_TRUE(ready(fd, 10000));
    EXPECT_EQ(read_some(fd, 99), "<6>x\n");
    EXPECT_EQ(read_some(fd, 99), "errno " + std::to_string(EAGAIN));
    close(fd);
}

TEST(Kmsg, DescriptorsShareOnePosition) {
    handset set;
    BOOTED(set);
    ASSERT_TRUE(desk_kmsg_feed(set.h, "<6>one record\n"));
    int one = desk_open(set.h, "/proc/kmsg", O_RDONLY | O_NONBLOCK);
    int other = desk_open(set.h, "/proc/kmsg", O_RDONLY | O_NONBLOCK);
    EXPECT_EQ(read_some(one, 4), "<6>o");
    EXPECT_EQ(read_some(other, 99), "ne record\n");
    EXPECT_EQ(read_some(one, 99), "errno " + std::to_string(EAGAIN));
    close(one);
    close(other);
}

TEST(Kmsg, IsDrainedOnlyWhenReadToTheEnd) {
    handset set;
    BOOTED(set);
    EXPECT_TRUE(desk_kmsg_drained(set.h)) << "nothing fed yet";
    ASSERT_TRUE(desk_kmsg_feed(set.h, "<6>12345\n"));
    int fd = desk_open(set.h, "/proc/kmsg", O_RDONLY);
    EXPECT_EQ(read_some(fd, 5), "<6>12");
    EXPECT_FALSE(desk_kmsg_drained(set.h, 50));
    EXPECT_EQ(read_some(fd, 99), "345\n");
    EXPECT_TRUE(desk_kmsg_drained(set.h));
    close(fd);
}

TEST(Kmsg, ManyRecordsKeepTheirOrder) {
    handset set;
    BOOTED(set);
    for (int i = 0; i < 300; i++) {
        ASSERT_TRUE(desk_kmsg_feed(set.h, "<6>record " + std::to_string(i) + "\n"));
    }
    int fd = desk_open(set.h, "/proc/kmsg", O_RDONLY | O_NONBLOCK);
    for (int i = 0; i < 300; i++) {
        ASSERT_TRUE(ready(fd, 10000)) << i;
        ASSERT_EQ(read_some(fd, 4096), "<6>record " + std::to_string(i) + "\n");
    }
    close(fd);
}

TEST(Kmsg, OnlyRootMayOpenIt) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(desk_owner(set.h, "/proc/kmsg"), "0440 0:1000");
    desk_program lowly;
    lowly.argv = {"dd", "if=/proc/kmsg", "count=1"};
    lowly.uid = lowly.gid = 2000;
    desk_result refused = desk_run(set.h, lowly);
    EXPECT_NE(refused.status, 0);
    EXPECT_NE(refused.errors.find("Permission denied"), std::string::npos) << refused.errors;
}

TEST(Kmsg, MachinesLogIsCopied) {
    int machine = open("/dev/kmsg", O_RDONLY | O_NONBLOCK);
    char record[8192];
    bool some = machine >= 0 && read(machine, record, sizeof(record)) > 0;
    if (machine >= 0) {
        close(machine);
    }
    if (!some) {
        GTEST_SKIP() << "this machine has no readable kernel log";
    }
    desk_options options = handset::no_agent();
    options.kmsg_machine = true;
    handset set(options);
    BOOTED(set);
    int fd = desk_open(set.h, "/proc/kmsg", O_RDONLY | O_NONBLOCK);
    ASSERT_TRUE(ready(fd, 10000));
    std::string first = read_some(fd, 4096);
    close(fd);
    unsigned priority;
    double stamp;
    EXPECT_EQ(sscanf(first.c_str(), "<%u>[%lf] ", &priority, &stamp), 2) << first;
    EXPECT_EQ(first.back(), '\n');
}
