// The exact threshold of the low-space protection, with file systems of many block sizes.
#include "sa/main/protect.h"

#include <sys/stat.h>
#include <unistd.h>

#include "tests/unit/faults.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

static const lines kReserve = {"/data/.protect/9", "/data/.protect/10", "/data/.protect/a", "/data/.protect/B"};

class Protect : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        mkdir("/data/.protect", 0755);
    }
    void TearDown() override {
        describe_space(0, 0);
        pass_calls();
    }
    // What is left of a full reserve when so much is free.
    static lines left_with(uint64_t available, long block_size) {
        for (const std::string &path : kReserve) {
            write_file(path, "");
        }
        describe_space(available, block_size);
        protect_data();
        lines left;
        for (const std::string &path : kReserve) {
            if (access(path.c_str(), F_OK) == 0) {
                left.push_back(path);
            }
        }
        return left;
    }
};

struct space {
    uint64_t available;
    long block_size;
};

TEST_F(Protect, LeavesTheReserveAloneFromThreeMebibytesOn) {
    const space amounts[] = {{3145728, 1}, {6144, 512},  {768, 4096}, {48, 65536},
                             {3, 1 << 20}, {3145729, 1}, {1, 1 << 22}};
    for (const space &amount : amounts) {
        EXPECT_EQ(left_with(amount.available, amount.block_size), kReserve)
            << amount.available << " blocks of " << amount.block_size;
    }
}

TEST_F(Protect, RemovesTheGreatestNameBelowThreeMebibytes) {
    const lines without_last = {"/data/.protect/9", "/data/.protect/10", "/data/.protect/B"};
    const space amounts[] = {{3145727, 1}, {6143, 512}, {767, 4096}, {47, 65536}, {2, 1 << 20}, {1, 1}, {0, 4096}};
    for (const space &amount : amounts) {
        EXPECT_EQ(left_with(amount.available, amount.block_size), without_last)
            << amount.available << " blocks of " << amount.block_size;
    }
}

// Amounts that look small, or like nothing, in their lower 32 bits.
TEST_F(Protect, CountsBeyond32Bits) {
    const space amounts[] = {{1ull << 32, 1}, {1ull << 20, 4096}, {(1ull << 20) + 1, 4096}, {1ull << 50, 4096}};
    for (const space &amount : amounts) {
        EXPECT_EQ(left_with(amount.available, amount.block_size), kReserve)
            << amount.available << " blocks of " << amount.block_size;
    }
}

TEST_F(Protect, TellsWhatItFound) {
    left_with(3145728, 1);
    EXPECT_EQ(platform(), (lines{"protect_data()", "buffer.bavail:3145728 buffer.f_bsize:1 low_size:3145728\n"}));
}

TEST_F(Protect, RemovesNothingWhenTheSpaceIsUnknown) {
    fail_call("statfs", EIO);
    EXPECT_EQ(left_with(0, 4096), kReserve);
    EXPECT_EQ(platform(),
              (lines{"protect_data()", "sa protect_data stat /data caught errno:5 err:Input/output error\n"}));
}
