// +SAVE_LOG: its command lines, their order and conditions, and the log lines of each.
#include <algorithm>

#include "tests/support/commands.h"

static const char kHandler[] = "handle_sa_save_log_set";
static const char kRoot[] = "/storage/real_sd/logs";

static const lines kSources = {"/data/local/log-modem",
                               "/data/local/log-modem-1",
                               "/data/local/log-modem-2",
                               "/data/log",
                               "/data/anr",
                               "/data/data/com.android.mms",
                               "/data/data/com.android.providers.telephony"};

class SaveLogRows : public CommandTest {
  protected:
    // A handset without collectors and without any of the sources, whose shell and busybox keep records.
    void boot_bare(desk_options options = quiet_options());
    // Saves with just these sources there.
    void save_with(const lines &present);
};

void SaveLogRows::boot_bare(desk_options options) {
    add_quick_programs(&options);
    options.files.push_back(recording_busybox());
    options.absent.push_back("/data/anr");
    options.prepare = record_shell;
    boot(options);
    shell_lines();  // those of the start-up
    busybox_lines();
}

void SaveLogRows::save_with(const lines &present) {
    for (const std::string &source : kSources) {
        ASSERT_TRUE(count_lines(present, source) > 0 ? desk_make_dir(h, source) : desk_remove(h, source));
    }
    shell_lines();
    EXPECT_EQ(request("+SAVE_LOG"), kOk);
}

// The lines of a directory that is made at the first attempt.
static lines made_lines(const std::string &entry_mark, const std::string &path) {
    lines all = {"sa_mkdir log_path_ptr[" + path + "]", "sa_mkdir mkdir return[0]",
                 "sa_mkdir mkdir(" + path + ") successfully",
                 std::string(kHandler) + " sa_mkdir(" + path + ") return[0]"};
    if (!entry_mark.empty()) {
        all.insert(all.begin(), "sa_mkdir" + entry_mark);
    }
    return all;
}

static lines good_call(const std::string &line) {
    return {"PUB_UTIL_CALL_SYSTEM(0, " + line + ")"};
}

static lines bad_call(const std::string &function, const std::string &line) {
    return {"PUB_UTIL_CALL_SYSTEM(256, " + line + ")", report(function, -118), "error(256) to exec: " + line};
}

TEST_F(SaveLogRows, WithoutAnyCondition) {
    ASSERT_NO_FATAL_FAILURE(boot_bare());
    EXPECT_EQ(request("+SAVE_LOG"), kOk);
    const std::string to = destination();
    const lines wanted = save_lines(to);
    ASSERT_EQ(wanted.size(), 12u);
    EXPECT_EQ(shell_lines(), wanted);
    EXPECT_EQ(busybox_lines(),
              (lines{"<cp></data/rec_dump.txt><" + to + "><-R>", "<cp></data/play_out_dump.txt><" + to + "><-R>",
                     "<cp></data/local/log><" + to + "/><-R>", "<ifconfig>", "<route>",
                     "<cp></data/tombstones><" + to + "><-R>"}));
}

// Everything that one save says: two directories made, nineteen lines less the seven conditional ones.
TEST_F(SaveLogRows, AreLogged) {
    ASSERT_NO_FATAL_FAILURE(boot_bare());
    EXPECT_EQ(request("+SAVE_LOG"), kOk);
    const std::string to = destination();
    const lines row = save_lines(to);
    const std::string begin = std::string(kHandler) + " log_path_a[" + to + "] fd[" + channel_number() + "]";
    const std::string copied = std::string(kHandler) + " [3]do_sys_command cp /data/local/log ret_val[0] ";
    ASSERT_EQ(row.size(), 12u);
    lines wanted = joined({{std::string(kHandler) + "()", begin},
                           made_lines("()", kRoot),
                           made_lines("()", to),
                           {std::string(kHandler) + " ret_val[0]"},
                           bad_call(kHandler, row[0]),
                           bad_call(kHandler, row[1]),
                           bad_call(kHandler, row[2]),
                           {"do_sys_command()"},
                           good_call(row[3]),
                           {copied}});
    for (size_t i = 4; i < row.size(); i++) {
        wanted.insert(wanted.end(), good_call(row[i])[0]);
    }
    EXPECT_EQ(steps(), joined({wanted, ok_steps()}));
    EXPECT_EQ(file_steps(),
              joined({{begin},
                      made_lines("", kRoot),
                      made_lines("", to),
                      {std::string(kHandler) + " ret_val[0]", "do_sys_command cmd[" + row[3] + "]", copied}}));
    EXPECT_EQ(result(), "ret_val[0]");
    EXPECT_EQ(desk_list(h, to), (lines{"bugreport.log", "getprop.log", "ifconfig.log", "log", "ls_tmp.log", "lsmod.log",
                                       "ps.log", "route.log", "tombstones", "zr3360regs.log"}));
}

TEST_F(SaveLogRows, WithEveryCondition) {
    ASSERT_NO_FATAL_FAILURE(boot_bare());
    ASSERT_NO_FATAL_FAILURE(save_with(kSources));
    const std::string to = destination();
    const lines row = save_lines(to, kSources);
    ASSERT_EQ(row.size(), 19u);
    EXPECT_EQ(shell_lines(), row);
    EXPECT_EQ(busybox_lines(),
              (lines{"<cp></data/rec_dump.txt><" + to + "><-R>", "<cp></data/play_out_dump.txt><" + to + "><-R>",
                     "<cp></data/local/log><" + to + "/><-R>", "<cp></data/local/log-modem><" + to + "/><-R>",
                     "<cp></data/local/log-modem-1><" + to + "/><-R>", "<cp></data/local/log-modem-2><" + to + "/><-R>",
                     "<cp></data/log><" + to + "/data-log><-R>", "<cp></data/anr><" + to + "><-R>",
                     "<cp></data/data/com.android.mms><" + to + "><-R>",
                     "<cp></data/data/com.android.providers.telephony><" + to + "/com.android.providers.telephony><-R>",
                     "<ifconfig>", "<route>", "<cp></data/tombstones><" + to + "><-R>"}));
    lines wanted;
    const lines sources = joined({{"/data/local/log"}, kSources});
    for (size_t i = 0; i < sources.size(); i++) {
        if (i == 7) {
            wanted = joined({wanted, made_lines("()", to + "/com.android.providers.telephony")});
        }
        wanted = joined({wanted,
                         {"do_sys_command()"},
                         good_call(row[3 + i]),
                         {std::string(kHandler) + " [" + std::to_string(3 + i) + "]do_sys_command cp " + sources[i] +
                          " ret_val[0] "}});
    }
    const lines all = steps();
    const auto from = std::find(all.begin(), all.end(), "do_sys_command()");
    ASSERT_GE(static_cast<size_t>(all.end() - from), wanted.size());
    EXPECT_EQ(lines(from, from + static_cast<ptrdiff_t>(wanted.size())), wanted);
    EXPECT_EQ(file_steps_of("do_sys_command"),
              (lines{"cmd[" + row[3] + "]", "cmd[" + row[4] + "]", "cmd[" + row[5] + "]", "cmd[" + row[6] + "]",
                     "cmd[" + row[7] + "]", "cmd[" + row[8] + "]", "cmd[" + row[9] + "]", "cmd[" + row[10] + "]"}));
}

TEST_F(SaveLogRows, EachConditionIsTestedOnItsOwn) {
    ASSERT_NO_FATAL_FAILURE(boot_bare());
    for (const std::string &source : kSources) {
        SCOPED_TRACE(source);
        ASSERT_NO_FATAL_FAILURE(save_with({source}));
        EXPECT_EQ(shell_lines(), save_lines(destination(), {source}));
        EXPECT_EQ(desk_exists(h, destination() + "/com.android.providers.telephony"), source == kSources.back());
        EXPECT_TRUE(desk_remove(h, kRoot)) << "the next may fall in the same second";
    }
}

// It is made whether it exists or not; here an earlier row's program has made it already.
TEST_F(SaveLogRows, GoOnWhenTheTelephonyDirectoryExists) {
    desk_options options = quiet_options();
    options.files.push_back(script("/system/xbin/busybox",
                                   "[ \"$2\" != /data/rec_dump.txt ] || mkdir $3/com.android.providers.telephony\n"
                                   "exec /usr/bin/busybox \"$@\"\n"));
    ASSERT_NO_FATAL_FAILURE(boot_bare(options));
    ASSERT_NO_FATAL_FAILURE(save_with({kSources.back()}));
    const std::string made = destination() + "/com.android.providers.telephony";
    lines wanted = {"sa_mkdir()", "sa_mkdir log_path_ptr[" + made + "]"};
    for (int attempt = 0; attempt < 5; attempt++) {
        wanted.push_back("sa_mkdir mkdir return[-1]");
        wanted.push_back("sa_mkdir mkdir(" + made + ") faild errno[17] strerror[File exists]");
    }
    wanted = joined(
        {wanted,
         {std::string(kHandler) + " sa_mkdir(" + made + ") return[-1]", "sys call: mkdir() failed! errno = 17",
          report(kHandler, -1), "do_sys_command()"},
         good_call(save_lines(destination(), {kSources.back()})[4]),
         {std::string(kHandler) + " [10]do_sys_command cp /data/data/com.android.providers.telephony ret_val[0] "}});
    const lines all = steps();
    const auto from = std::find(all.begin(), all.end(), wanted[1]) - 1;
    ASSERT_GE(static_cast<size_t>(all.end() - from), wanted.size());
    EXPECT_EQ(lines(from, from + static_cast<ptrdiff_t>(wanted.size())), wanted);
    EXPECT_EQ(desk_list(h, made), (lines{"com.android.providers.telephony"}));
}

TEST_F(SaveLogRows, ThatFailAreTriedAgainWhereTheyAreCopies) {
    desk_options options = quiet_options();
    options.absent = {"/tmp"};
    ASSERT_NO_FATAL_FAILURE(boot_bare(options));
    ASSERT_TRUE(desk_remove(h, "/data/local/log"));
    send("AT SA+SAVE_LOG\r");
    EXPECT_EQ(receive(), kOk) << "whatever fails";
    const lines wanted = save_lines("@");
    lines given = shell_lines();
    ASSERT_EQ(given.size(), wanted.size() + 4) << "the copy of the log directory ran five times";
    for (std::string &line : given) {
        const size_t at = line.find(kRoot);
        ASSERT_NE(at, std::string::npos);
        line.replace(at, std::string(kRoot).size() + 20, "@");  // with "/2026_07_14_09_58_07"
    }
    EXPECT_EQ(given, joined({lines(wanted.begin(), wanted.begin() + 3), repeated(5, wanted[3]),
                             lines(wanted.begin() + 4, wanted.end())}));
    ASSERT_NE(
        desk_wait_log(h, "zr-qel-sa", "handle_sa_save_log_set [3]do_sys_command cp /data/local/log ret_val[-118] "),
        0u);
    EXPECT_NE(desk_wait_log_part(h, "zr-qel-sa", "error(256) to exec: ls /tmp > "), 0u);
}
