// The collectors' settings and the argument vectors of the logcat collectors.
#include <errno.h>
#include <signal.h>
#include <string.h>
#include <unistd.h>

#include <cutils/properties.h>

#include "sa/sa-handle/collect/log_svc.h"
#include "sa/sa-handle/collect/logcat.h"
#include "tests/unit/log_lines.h"

typedef std::vector<std::string> lines;

static const char kDefault[] = "/data/local/log,I1,3,5120,I2,5,8192,I3,5,20480,I4,5,5120,I5,5,5120,I6,5,5120";

// "type_id:type:file_num=file_num_val:file_size=file_size_val" of a record.
static std::string text_of(const struct log_svc_rec &rec) {
    return std::to_string(rec.type_id) + ":" + rec.type + ":" + rec.file_num + "=" + std::to_string(rec.file_num_val) +
           ":" + rec.file_size + "=" + std::to_string(rec.file_size_val);
}

static lines table() {
    lines texts;
    for (const struct log_svc_rec &rec : g_zr_log_svc) {
        texts.push_back(text_of(rec));
    }
    return texts;
}

class Settings : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        memset(g_zr_log_svc, 0, sizeof(g_zr_log_svc));
        strcpy(g_log_path_a, "/before");
    }
};

TEST_F(Settings, OfTheDefault) {
    EXPECT_EQ(get_zr_log_config(), 0);
    EXPECT_STREQ(g_log_path_a, "/data/local/log");
    EXPECT_EQ(table(), (lines{"1:I1:3=3:5120=5120", "2:I2:5=5:8192=8192", "3:I3:5=5:20480=20480", "4:I4:5=5:5120=5120",
                              "5:I5:5=5:5120=5120", "6:I6:5=5:5120=5120"}));
    const lines found = platform();
    ASSERT_EQ(found.size(), 9u);
    EXPECT_EQ(found[0], "get_zr_log_config()");
    EXPECT_EQ(found[1], "get_zr_log_config zr_log_config_value=[" + std::string(kDefault) + "]");
    EXPECT_EQ(found[2], "parse_zr_log_config()");
    EXPECT_EQ(found[3],
              "parse_zr_log_config g_zr_log_svc[0]: type[I1] type_id[1] file_num[3] file_num_val[3] "
              "file_size[5120] file_size_val[5120]");
    EXPECT_EQ(found[8],
              "parse_zr_log_config g_zr_log_svc[5]: type[I6] type_id[6] file_num[5] file_num_val[5] "
              "file_size[5120] file_size_val[5120]");
    EXPECT_EQ(file().back(),
              "parse_zr_log_config svc[5] type[I6] type_id[6] file_num[5] file_num_val[5] file_size[5120] "
              "file_size_val[5120]");
}

TEST_F(Settings, ComeFromTheProperty) {
    ASSERT_EQ(property_set("persist.sys.install.zr.log", "/d,a,1,2,b,3,4,c,5,6,d,7,8,e,9,10,f,11,12,more"), 0);
    EXPECT_EQ(get_zr_log_config(), 0);
    EXPECT_STREQ(g_log_path_a, "/d");
    EXPECT_EQ(table(),
              (lines{"1:a:1=1:2=2", "2:b:3=3:4=4", "3:c:5=5:6=6", "4:d:7=7:8=8", "5:e:9=9:10=10", "6:f:11=11:12=12"}));
    ASSERT_EQ(property_set("persist.sys.install.zr.log", ""), 0);
}

TEST_F(Settings, SkipEmptyFields) {
    EXPECT_EQ(parse_zr_log_config(",,/d,,a,1,,2,b,3,4,c,5,6,d,7,8,e,9,10,f,11,12"), 0);
    EXPECT_STREQ(g_log_path_a, "/d");
    EXPECT_EQ(table()[0], "1:a:1=1:2=2");
}

TEST_F(Settings, TakeWhatIsNoNumberForNone) {
    EXPECT_EQ(parse_zr_log_config("/d,a,x,-2,b,12x, 4,c,0x10,99999999999,d,7,8,e,9,10,f,11,12"), 0);
    EXPECT_EQ(table()[0], "1:a:x=0:-2=-2");
    EXPECT_EQ(table()[1], "2:b:12x=12: 4=4");
    EXPECT_EQ(text_of(g_zr_log_svc[2]).compare(0, 10, "3:c:0x10=0"), 0);
}

TEST_F(Settings, CutCountAndSizeTextsAt39Characters) {
    const std::string digits(60, '0');
    EXPECT_EQ(parse_zr_log_config(("/d,a," + digits + "7," + digits + "8,b,3,4,c,5,6,d,7,8,e,9,10,f,11,12").c_str()),
              0);
    EXPECT_EQ(g_zr_log_svc[0].file_num, digits.substr(0, 39));
    EXPECT_EQ(g_zr_log_svc[0].file_size, digits.substr(0, 39));
    EXPECT_EQ(g_zr_log_svc[0].file_num_val, 7) << "the number is the whole token's";
    EXPECT_EQ(g_zr_log_svc[0].file_size_val, 8);
}

TEST_F(Settings, NeverTouchWhatRuns) {
    g_zr_log_svc[3].svc_pid = 4711;
    g_zr_log_svc[2].mthread_id = {12, 3};
    EXPECT_EQ(parse_zr_log_config(kDefault), 0);
    EXPECT_EQ(g_zr_log_svc[3].svc_pid, 4711);
    EXPECT_EQ(g_zr_log_svc[2].mthread_id.thread, 12ul);
    EXPECT_EQ(g_zr_log_svc[2].mthread_id.serial, 3u);
}

struct refusal {
    const char *value;
    const char *message;
    int filled;  // records with all their new values
};

static const refusal kRefusals[] = {
    {"", "Log path is null!!!", 0},
    {",,,", "Log path is null!!!", 0},
    {"/d", "Get Log Type Failed. LogTypeID=I1", 0},
    {"/d,a", "Get Log File Num Failed. LogTypeID=I1", 0},
    {"/d,a,1", "Get Log File Size Failed. LogTypeID=I1", 0},
    {"/d,a,1,2", "Get Log Type Failed. LogTypeID=I2", 1},
    {"/d,a,1,2,b,3", "Get Log File Size Failed. LogTypeID=I2", 1},
    {"/d,a,1,2,b,3,4,c,5,6,d,7,8,e,9,10,f,11", "Get Log File Size Failed. LogTypeID=I6", 5},
};

TEST_F(Settings, ThatAreIncompleteAreRefusedAndKeepWhatWasRead) {
    for (const refusal &given : kRefusals) {
        forget();
        memset(g_zr_log_svc, 0, sizeof(g_zr_log_svc));
        EXPECT_EQ(parse_zr_log_config(given.value), -100) << given.value;
        const lines found = platform();
        ASSERT_GE(found.size(), 3u);
        EXPECT_EQ(found[found.size() - 2], given.message) << given.value;
        EXPECT_EQ(found.back(), "Parse zr log config failed") << given.value;
        for (int index = 0; index < 6; index++) {
            EXPECT_EQ(g_zr_log_svc[index].file_size_val != 0, index < given.filled) << given.value << " " << index;
        }
    }
}

TEST_F(Settings, ThatEndInsideATripleKeepItsBeginning) {
    EXPECT_EQ(parse_zr_log_config("/d,a,1,2,b,3"), -100);
    EXPECT_STREQ(g_log_path_a, "/d");
    EXPECT_EQ(table()[1], "2:b:3=3:=0");
    EXPECT_EQ(table()[2], "0::=0:=0");
}

typedef Settings SettingsDeathTest;

TEST_F(SettingsDeathTest, APathOf100CharactersAborts) {
    const std::string rest = ",a,1,2,b,3,4,c,5,6,d,7,8,e,9,10,f,11,12";
    EXPECT_EQ(parse_zr_log_config((std::string(99, 'p') + rest).c_str()), 0);
    EXPECT_EQ(g_log_path_a, std::string(99, 'p'));
    EXPECT_EXIT(parse_zr_log_config((std::string(100, 'p') + rest).c_str()), ::testing::KilledBySignal(SIGABRT), "");
}

TEST_F(SettingsDeathTest, ATypeOfFourCharactersAborts) {
    const std::string rest = ",1,2,b,3,4,c,5,6,d,7,8,e,9,10,f,11,12";
    EXPECT_EQ(parse_zr_log_config(("/d,abc" + rest).c_str()), 0);
    EXPECT_STREQ(g_zr_log_svc[0].type, "abc");
    EXPECT_EXIT(parse_zr_log_config(("/d,abcd" + rest).c_str()), ::testing::KilledBySignal(SIGABRT), "");
}

// ---- argument vectors ----

class LogcatVector : public LogLinesTest {
  protected:
    void SetUp() override {
        LogLinesTest::SetUp();
        strcpy(g_log_path_a, "/data/local/log");
        memset(&rec, 0, sizeof(rec));
        strcpy(rec.file_num, "5");
        strcpy(rec.file_size, "5120");
    }
    // Arguments in angle brackets, or the result of a failure.
    std::string vector(const char *type) {
        strcpy(rec.type, type);
        memset(&argv, 'x', sizeof(argv));
        num = -1;
        const long result = make_logcat_svc_argv_ex(&rec, &argv);
        num = argv.num;
        if (result != 0) {
            return std::to_string(result);
        }
        std::string text;
        int count = 0;
        while (argv.vector_a[count] != nullptr) {
            text += "<" + std::string(argv.vector_a[count++]) + ">";
        }
        EXPECT_EQ(count, num);
        return text;
    }

    struct log_svc_rec rec;
    struct sa_argv argv;
    int num = -1;
};

static const char kCommon[] = "</system/bin/logcat><-r><5120><-v><threadtime><-v><usec><-v><printable><-n><5>";

TEST_F(LogcatVector, OfEachType) {
    const std::string common = kCommon;
    EXPECT_EQ(vector("I4"), common + "<-f></data/local/log/logcat.log>");
    EXPECT_EQ(num, 13);
    EXPECT_EQ(vector("I5"), common + "<-b><events><-f></data/local/log/logcat-events.log>");
    EXPECT_EQ(num, 15);
    EXPECT_EQ(vector("I6"), common + "<-b><radio><-f></data/local/log/logcat-radio.log>");
    EXPECT_EQ(num, 15);
    EXPECT_EQ(vector("I1"), common + "<-f></data/local/log/emsd.log><-s><EMSD:V>");
    EXPECT_EQ(num, 15);
}

TEST_F(LogcatVector, TakesCountAndSizeAsTheyWereWritten) {
    strcpy(rec.file_num, "07x");
    strcpy(rec.file_size, " 12");
    EXPECT_EQ(vector("I4"),
              "</system/bin/logcat><-r>< 12><-v><threadtime><-v><usec><-v><printable><-n><07x><-f>"
              "</data/local/log/logcat.log>");
}

TEST_F(LogcatVector, OfAnUnknownTypeIsRefused) {
    for (const char *type : {"I2", "I3", "I7", "i4", "I", ""}) {
        forget();
        EXPECT_EQ(vector(type), "-100") << type;
        EXPECT_EQ(num, 0) << type;
        const std::string message = "make_logcat_svc_argv_ex Invalid Log Type, TypeID=" + std::string(type);
        EXPECT_EQ(platform(), (lines{"make_logcat_svc_argv_ex()", message}));
        EXPECT_EQ(file(), lines{message});
    }
}

TEST_F(LogcatVector, CutsAnArgumentAt39Characters) {
    strcpy(g_log_path_a, "/storage/real_sd/a/rather/deep/directory");
    const std::string path = std::string(g_log_path_a) + "/logcat.log";
    EXPECT_EQ(vector("I4"), std::string(kCommon) + "<-f><" + path.substr(0, 39) + ">");
}

class LogcatStart : public LogcatVector {};

TEST_F(LogcatStart, OfNoRecordFails) {
    EXPECT_EQ(start_logcat_service_ex(nullptr), -100);
    EXPECT_EQ(platform(), (lines{"start_logcat_service_ex()", "start_logcat_service_ex Invalid parameter."}));
    EXPECT_EQ(file(), lines{"start_logcat_service_ex Invalid parameter."});
}

TEST_F(LogcatStart, WithoutTheProgramFailsBeforeTheSwitchIsLookedAt) {
    ASSERT_EQ(rename("/system/bin/logcat", "/system/bin/away"), 0);
    strcpy(rec.type, "I4");
    EXPECT_EQ(start_logcat_service_ex(&rec), -100);
    ASSERT_EQ(rename("/system/bin/away", "/system/bin/logcat"), 0);
    const std::string head =
        "start_logcat_service_ex path[/system/bin/logcat] type[I4] file_num_val[0] file_size_val[0]";
    EXPECT_EQ(platform(), (lines{"start_logcat_service_ex()", head,
                                 "start_logcat_service_ex File \"/system/bin/logcat\" is not exist."}));
    EXPECT_EQ(file(), (lines{head,
                             "start_logcat_service_ex access path[/system/bin/logcat] errno[2-No such file or "
                             "directory]"}));
}

TEST_F(LogcatStart, OfACollectorThatIsSwitchedOffDoesNothing) {
    strcpy(rec.type, "I4");
    rec.svc_pid = 4711;
    rec.file_num_val = 5;
    EXPECT_EQ(start_logcat_service_ex(&rec), 0);
    EXPECT_EQ(platform().back(), "start_logcat_service_ex need no logcat");
    rec.file_num_val = 0;
    rec.file_size_val = 5;
    EXPECT_EQ(start_logcat_service_ex(&rec), 0);
    EXPECT_EQ(file().back(), "start_logcat_service_ex need no logcat");
    EXPECT_EQ(rec.svc_pid, 4711);
}

TEST_F(LogcatStart, OfAnUnknownTypeFails) {
    strcpy(rec.type, "I7");
    rec.file_num_val = 1;
    rec.file_size_val = 1;
    EXPECT_EQ(start_logcat_service_ex(&rec), -100);
    const lines found = platform();
    ASSERT_GE(found.size(), 3u);
    EXPECT_EQ(lines(found.end() - 3, found.end()),
              (lines{"make_logcat_svc_argv_ex cmdline[]",
                     "start_logcat_service_ex make_logcat_svc_argv_ex[-100] svc_argv_num[0]",
                     "start_logcat_service_ex Make logcat service args failed."}));
    EXPECT_EQ(rec.svc_pid, 0);
}
