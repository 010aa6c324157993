// Starting collectors directly: invalid records, and the kernel reader with descriptor 0 free.
#include <string.h>
#include <unistd.h>

#include "sa/sa-handle/collect/kmsg.h"
#include "sa/sa-handle/collect/log_directory.h"
#include "sa/sa-handle/collect/log_start.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

class LogStart : public LogLinesTest {
  protected:
    // Lines of the diagnostic file that begin so.
    int count_of(const std::string &beginning) {
        int count = 0;
        for (const std::string &line : file()) {
            count += line.compare(0, beginning.size(), beginning) == 0 ? 1 : 0;
        }
        return count;
    }
};

TEST_F(LogStart, OfNoRecordFails) {
    EXPECT_EQ(start_zr_log_service(nullptr), -100);
    EXPECT_EQ(platform(), (lines{"start_zr_log_service()", "Invalid param."}));
    EXPECT_EQ(file(), lines{});
}

// Neither packets nor kernel messages: a success that does nothing.
TEST_F(LogStart, OfAnotherPositionDoesNothing) {
    for (const int32_t type_id : {0, 1, 4, 5, 6, 7, -2}) {
        struct log_svc_rec rec;
        memset(&rec, 0, sizeof(rec));
        strcpy(rec.type, "I2");  // the type does not count
        rec.type_id = type_id;
        rec.file_num_val = 5;
        rec.file_size_val = 5;
        rec.svc_pid = 77;
        EXPECT_EQ(start_zr_log_service(&rec), 0) << type_id;
        EXPECT_EQ(rec.svc_pid, 77);
        EXPECT_EQ(rec.mthread_id.serial, 0u);
    }
    EXPECT_EQ(platform(), lines(7, "start_zr_log_service()"));
    EXPECT_EQ(file(), lines{});
}

TEST_F(LogStart, ChecksNoDirectoryWithoutAName) {
    EXPECT_EQ(check_zr_log_path(nullptr), -100);
    EXPECT_EQ(platform(), (lines{"check_zr_log_path()", "Invalid param."}));
    EXPECT_EQ(file(), lines{});
}

// The reader takes a stream that got descriptor 0 for a failure, on purpose.
TEST_F(LogStart, KernelReaderRefusesDescriptorZero) {
    struct log_svc_rec *rec_ptr = &g_zr_log_svc[LOG_SVC_KMSG - 1];
    rec_ptr->file_num_val = 1;
    rec_ptr->file_size_val = 5;
    const int saved = dup(STDIN_FILENO);
    ASSERT_EQ(close(STDIN_FILENO), 0);
    ASSERT_EQ(start_kernel_reader(), 0);
    ASSERT_TRUE(wait_until([] {
        char target[64] = "";
        return readlink("/proc/self/fd/0", target, sizeof(target) - 1) > 0 && strcmp(target, "/proc/kmsg") == 0 &&
               read_file("/data/local/log/sa.log").find("read_kernel_log_loop open(/proc/kmsg) errno[") !=
                   std::string::npos;
    }));
    EXPECT_EQ(count_of("read_kernel_log_loop fd_r[0]"), 1);
    EXPECT_EQ(count_of("read_kernel_log_loop fd_w["), 0) << "the output is not even opened";
    ASSERT_EQ(dup2(saved, STDIN_FILENO), STDIN_FILENO);
    close(saved);
}
