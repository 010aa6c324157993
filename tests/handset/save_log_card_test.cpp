// +SAVE_LOG and its card: no card, a full card, no directory possible, two saves in the same second.
#include "tests/support/commands.h"

static const char kHandler[] = "handle_sa_save_log_set";
static const char kRoot[] = "/storage/real_sd/logs";

class SaveLogCard : public CommandTest {
  protected:
    void boot_quick(desk_options options = quiet_options());
};

void SaveLogCard::boot_quick(desk_options options) {
    add_quick_programs(&options);
    options.absent.push_back("/data/anr");
    options.prepare = record_shell;
    boot(options);
    shell_lines();  // those of the start-up
}

// A directory that cannot be made in five attempts, in the platform log.
static lines unmade_steps(const std::string &path, int error, const std::string &error_text) {
    lines all = {"sa_mkdir()", "sa_mkdir log_path_ptr[" + path + "]"};
    for (int attempt = 0; attempt < 5; attempt++) {
        all.push_back("sa_mkdir mkdir return[-1]");
        all.push_back("sa_mkdir mkdir(" + path + ") faild errno[" + std::to_string(error) + "] strerror[" + error_text +
                      "]");
    }
    all.push_back(std::string(kHandler) + " sa_mkdir(" + path + ") return[-1]");
    all.push_back("sys call: mkdir() failed! errno = " + std::to_string(error));
    all.push_back(report(kHandler, -1));
    return all;
}

// How the handler ends that has no directory to save to.
static lines given_up_steps(const std::string &path, int error) {
    return joined(
        {{"sys call: access() failed! errno = " + std::to_string(error), report(kHandler, -1), report(kHandler, -118),
          "can not open path \"" + path + "\"", std::string(kHandler) + " ret_val[-118]"},
         error_steps()});
}

TEST_F(SaveLogCard, WithoutOneIsAnError) {
    desk_options options = quiet_options();
    options.sd_card = false;
    ASSERT_NO_FATAL_FAILURE(boot_quick(options));
    EXPECT_EQ(request("+SAVE_LOG"), kError);
    const std::string missing = "No such file or directory";
    const std::string begin = std::string(kHandler) + " log_path_a[" + destination() + "] fd[" + channel_number() + "]";
    EXPECT_EQ(steps(), joined({{std::string(kHandler) + "()", begin},
                               unmade_steps(kRoot, 2, missing),
                               unmade_steps(destination(), 2, missing),
                               given_up_steps(destination(), 2)}));
    lines in_file = {begin};
    for (const std::string &line : joined({unmade_steps(kRoot, 2, missing), unmade_steps(destination(), 2, missing)})) {
        if (line != "sa_mkdir()" && line.compare(0, 5, "sys c") != 0 && line != report(kHandler, -1)) {
            in_file.push_back(line);
        }
    }
    EXPECT_EQ(file_steps(), joined({in_file, {std::string(kHandler) + " ret_val[-118]"}}));
    EXPECT_EQ(result(), "ret_val[0]");
    const std::vector<double> attempts = moments("sa_mkdir mkdir return");
    EXPECT_EQ(attempts.size(), 10u);
    EXPECT_TRUE(apart(attempts, 0.0499)) << "a pause after each, the fifth included";
    EXPECT_EQ(shell_lines(), lines()) << "nothing is copied";
    EXPECT_FALSE(desk_exists(h, "/storage/real_sd"));
}

TEST_F(SaveLogCard, PutInLaterIsUsed) {
    desk_options options = quiet_options();
    options.sd_card = false;
    ASSERT_NO_FATAL_FAILURE(boot_quick(options));
    EXPECT_EQ(request("+SAVE_LOG"), kError);
    ASSERT_TRUE(desk_set_sd_card(h, true));
    EXPECT_EQ(request("+SAVE_LOG"), kOk);
    EXPECT_EQ(shell_lines(), save_lines(destination()));
    EXPECT_TRUE(desk_exists(h, destination() + "/bugreport.log"));
    ASSERT_TRUE(desk_set_sd_card(h, false));
    EXPECT_EQ(request("+SAVE_LOG"), kError);
}

TEST_F(SaveLogCard, WithAFileInTheRootsPlaceIsAnError) {
    ASSERT_NO_FATAL_FAILURE(boot_quick());
    ASSERT_TRUE(desk_write_file(h, kRoot, "a file\n"));
    EXPECT_EQ(request("+SAVE_LOG"), kError);
    const lines all = steps();
    ASSERT_GT(all.size(), 2u);
    EXPECT_EQ(lines(all.begin() + 2, all.end()),
              joined({unmade_steps(destination(), 20, "Not a directory"), given_up_steps(destination(), 20)}))
        << "the root exists: it is not made";
    EXPECT_EQ(shell_lines(), lines());
    EXPECT_EQ(desk_file_text(h, kRoot), "a file\n");
}

// Directories take no room on this card: every copy and every dump fails, and the host is told OK all the same.
TEST_F(SaveLogCard, FullIsNoError) {
    desk_options options = quiet_options();
    options.sd_card_size = 64 << 10;
    ASSERT_NO_FATAL_FAILURE(boot_quick(options));
    ASSERT_NE(run({"/system/bin/dd", "if=/dev/zero", "of=/storage/real_sd/filler"}).status, 0);
    ASSERT_TRUE(desk_write_file(h, "/data/rec_dump.txt", "recorded\n"));
    EXPECT_EQ(request("+SAVE_LOG"), kOk);
    const lines row = save_lines(destination());
    EXPECT_EQ(shell_lines(),
              joined({lines(row.begin(), row.begin() + 3), repeated(5, row[3]), lines(row.begin() + 4, row.end())}));
    EXPECT_EQ(desk_file_text(h, destination() + "/rec_dump.txt"), "");
    EXPECT_EQ(desk_file_text(h, destination() + "/getprop.log"), "");
    const lines all = steps();
    EXPECT_EQ(count_lines(all, "PUB_UTIL_CALL_SYSTEM(256, " + row[1] + ")"), 1);
    EXPECT_EQ(count_lines(all, "error(256) to exec: " + row[1]), 1);
    EXPECT_EQ(count_lines(all, "error(256) to exec: " + row[3]), 5);
    EXPECT_EQ(count_lines(all, std::string(kHandler) + " [3]do_sys_command cp /data/local/log ret_val[-118] "), 1);
    EXPECT_EQ(count_lines(all, report(kHandler, -118)) + count_lines(all, report("do_sys_command", -118)),
              static_cast<int>(rests(all, "error(").size()));
    EXPECT_EQ(result(), "ret_val[0]");
}

// The second one finds the first one's directory and copies over what is there.
TEST_F(SaveLogCard, TakesTwoSavesOfTheSameSecondInOneDirectory) {
    ASSERT_NO_FATAL_FAILURE(boot_quick());
    ASSERT_TRUE(desk_make_dir(h, "/data/log"));
    std::string first;
    bool is_same = false;
    for (int attempt = 0; attempt < 40 && !is_same; attempt++) {
        ASSERT_TRUE(desk_write_file(h, "/data/rec_dump.txt", "the first, which is longer\n"));
        ASSERT_EQ(request("+SAVE_LOG"), kOk);
        first = destination();
        ASSERT_TRUE(desk_write_file(h, "/data/rec_dump.txt", "the second\n"));
        ASSERT_EQ(request("+SAVE_LOG"), kOk);
        is_same = destination() == first;
    }
    ASSERT_TRUE(is_same) << "no two saves began within the same second";
    EXPECT_EQ(desk_file_text(h, first + "/rec_dump.txt"), "the second\n");
    EXPECT_EQ(count_lines(steps(), "sa_mkdir()"), 0) << "what exists is not made";
    EXPECT_EQ(desk_list(h, first + "/data-log"), (lines{"log"})) << "there it is copied into the first one's copy";
    const std::string diagnostic = desk_file_text(h, first + "/log/sa.log");
    const std::string begin = std::string(kHandler) + " log_path_a[" + first + "]";
    const size_t at = diagnostic.find(begin);
    ASSERT_NE(at, std::string::npos);
    EXPECT_NE(diagnostic.find(begin, at + 1), std::string::npos) << "the second copy of it";
}
