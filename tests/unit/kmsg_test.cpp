// The exact byte at which the kernel reader's file wraps, for sizes too large for a handset's stream.
#include "sa/sa-handle/collect/kmsg.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

static const char kFile[] = "/data/local/log/kmsg.log";
static const char kStream[] = "/tmp/stream";
static const off_t kStamp = sizeof("[2026-01-01 00:00:00]\n") - 1;
static const int kLimitMs = 60000;  // for 20 MiB in pieces of 99 bytes, which takes a machine at leisure a second

struct wrap_case {
    const char *name;
    int32_t file_size;  // KiB, as the property has it
    off_t limit;        // bytes
};

static void PrintTo(const wrap_case &one, std::ostream *out) {
    *out << one.file_size << " KiB";
}

static const wrap_case kWraps[] = {
    {"AtItsDefault", 20480, 20971520},
    {"OfOneKib", 1, 1024},
    {"WithEachReadAt32BitsOfZero", 4194304, 0},  // the limit is counted in 32 bits
    {"JustBeyond32Bits", 4194305, 1024},
};

class KernelReaderWrap : public LogLinesTest, public ::testing::WithParamInterface<wrap_case> {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        unlink(kStream);
        ASSERT_EQ(mkfifo(kStream, 0600), 0);
        stream = open(kStream, O_RDWR | O_CLOEXEC);  // both ends: neither opening waits, and the stream never ends
        ASSERT_GE(stream, 0);
        divert_open("kmsg", kStream);
    }
    void TearDown() override {
        const pub_thread_id reader = m_read_kernel_log_tid;
        pub_util_kill_thread(&m_read_kernel_log_tid);
        EXPECT_TRUE(wait_until([&] { return pub_util_signal_thread(reader, 0) == ESRCH; }));
        divert_open("", "");
        close(stream);
        unlink(kFile);
    }

    void start(int32_t file_size) {
        g_zr_log_svc[LOG_SVC_KMSG - 1].file_num_val = 1;
        g_zr_log_svc[LOG_SVC_KMSG - 1].file_size_val = file_size;
        ASSERT_EQ(start_kernel_reader(), 0);
        ASSERT_TRUE(wait_size(kStamp));
    }
    void feed(off_t size, char fill) {
        const std::string bytes(65536, fill);
        while (size > 0) {
            const size_t piece = size < 65536 ? static_cast<size_t>(size) : bytes.size();
            ASSERT_EQ(write(stream, bytes.data(), piece), static_cast<ssize_t>(piece));
            size -= static_cast<off_t>(piece);
        }
    }
    static bool wait_size(off_t size) {
        return wait_until([&] { return size_now() == size; }, kLimitMs);
    }
    static off_t size_now() {
        struct stat st;
        return stat(kFile, &st) == 0 ? st.st_size : -1;
    }
    static char byte_at(off_t offset) {
        char byte = '\0';
        const int fd = open(kFile, O_RDONLY | O_CLOEXEC);
        EXPECT_EQ(pread(fd, &byte, 1, offset), 1);
        close(fd);
        return byte;
    }

    int stream = -1;
};

TEST_P(KernelReaderWrap, FollowsTheFirstByteBeyondTheLimit) {
    const off_t limit = GetParam().limit;
    ASSERT_NO_FATAL_FAILURE(start(GetParam().file_size));
    ASSERT_NO_FATAL_FAILURE(feed(limit, 'a'));
    ASSERT_TRUE(wait_size(kStamp + limit)) << size_now();
    ASSERT_NO_FATAL_FAILURE(feed(1, 'b'));
    ASSERT_TRUE(wait_size(kStamp + limit + 1)) << "what just reaches the limit does not wrap";
    EXPECT_EQ(byte_at(kStamp + limit), 'b');
    EXPECT_EQ(byte_at(0), '[') << "the time stamp is still there";
    ASSERT_NO_FATAL_FAILURE(feed(1, 'c'));
    EXPECT_TRUE(wait_until([] { return byte_at(0) == 'c'; }));
    EXPECT_EQ(size_now(), kStamp + limit + 1) << "the older tail stays";
}

INSTANTIATE_TEST_SUITE_P(Size, KernelReaderWrap, ::testing::ValuesIn(kWraps),
                         [](const auto &one) { return std::string(one.param.name); });
