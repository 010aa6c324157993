// The log property: which values are accepted, what the records contain, and which collectors are switched off.
#include <signal.h>

#include "tests/support/collectors.h"

class CollectorsProperty : public CollectorTest {
  protected:
    // The six type tokens that the table holds, as a stop of all collectors logs them; runs +DELETE_LOG.
    std::string types_in_the_table(const std::string &answer);
};

std::string CollectorsProperty::types_in_the_table(const std::string &answer) {
    const size_t before = file_lines().size();
    EXPECT_EQ(command("+DELETE_LOG"), answer);
    std::string types;
    for (const std::string &rest : rests(file_lines_from(before), "sa_kill_all_child_service_ex log_type[")) {
        types += rest.substr(0, rest.find(']')) + ";";
    }
    return types;
}

// The logcat vector follows the token, packets and kernel messages follow the position.
TEST_F(CollectorsProperty, TokensInAnotherOrder) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property("/data/local/log,I3,0,0,I4,1,1,I6,1,1,I5,2,7,I6,3,8,I4,4,9")));
    EXPECT_EQ(vector_of(process_with("/data/local/log/ipdata.pcap")),
              "<tcpdump><-p><-v><-s><0><-i><any><-w></data/local/log/ipdata.pcap><-C><1><-W><1>");
    EXPECT_EQ(vector_of(process_with("/data/local/log/logcat-events.log")),
              "</system/bin/logcat><-r><7><-v><threadtime><-v><usec><-v><printable><-n><2><-b><events><-f>"
              "</data/local/log/logcat-events.log>");
    EXPECT_EQ(vector_of(process_with("/data/local/log/logcat-radio.log")),
              "</system/bin/logcat><-r><8><-v><threadtime><-v><usec><-v><printable><-n><3><-b><radio><-f>"
              "</data/local/log/logcat-radio.log>");
    EXPECT_EQ(vector_of(process_with("/data/local/log/logcat.log")),
              "</system/bin/logcat><-r><9><-v><threadtime><-v><usec><-v><printable><-n><4><-f>"
              "</data/local/log/logcat.log>");
    EXPECT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
    EXPECT_TRUE(in_order(
        file_lines(),
        {"parse_zr_log_config svc[1] type[I4] type_id[2] file_num[1] file_num_val[1] file_size[1] file_size_val[1]",
         "start_logcat_service_ex path[/system/bin/logcat] type[I6] file_num_val[3] file_size_val[8]",
         "start_logcat_service_ex path[/system/bin/logcat] type[I4] file_num_val[4] file_size_val[9]",
         "start_logcat_service_ex path[/system/bin/logcat] type[I5] file_num_val[2] file_size_val[7]",
         "start_zr_log_service type_id[3] file_num_val[1] file_size_val[1]"}));
}

TEST_F(CollectorsProperty, EmptyFieldsAreSkippedAndFurtherFieldsIgnored) {
    ASSERT_NO_FATAL_FAILURE(
        boot(with_log_property(",,/data/local/log,,I1,0,,0,I2,0,0,I3,0,0,I4,1,5,I5,0,0,I6,0,0,I7,more,")));
    EXPECT_EQ(rests(file_lines(), "parse_zr_log_config svc[").size(), 6u);
    EXPECT_TRUE(in_order(
        file_lines(),
        {"parse_zr_log_config svc[0] type[I1] type_id[1] file_num[0] file_num_val[0] file_size[0] file_size_val[0]",
         "parse_zr_log_config svc[3] type[I4] type_id[4] file_num[1] file_num_val[1] file_size[5] file_size_val[5]",
         "parse_zr_log_config svc[5] type[I6] type_id[6] file_num[0] file_num_val[0] file_size[0] file_size_val[0]",
         "start_log_service All Log Service Start Success."}));
    EXPECT_GT(process_with("/data/local/log/logcat.log"), 0);
}

// ---- what the grammar refuses ----

struct refused_value {
    const char *name;
    const char *value;
    const char *message;
    const char *types;  // in the table afterwards
    int records;        // that were filled
};

static void PrintTo(const refused_value &one, std::ostream *out) {
    *out << one.value;
}

static const refused_value kRefused[] = {
    {"NothingButCommas", ",,,", "Log path is null!!!", ";;;;;;", 0},
    {"PathAlone", "/data/local/log", "Get Log Type Failed. LogTypeID=I1", ";;;;;;", 0},
    {"TypeAlone", "/data/local/log,I1", "Get Log File Num Failed. LogTypeID=I1", "I1;;;;;;", 0},
    {"WithoutSize", "/data/local/log,I1,3", "Get Log File Size Failed. LogTypeID=I1", "I1;;;;;;", 0},
    {"OneTriple", "/data/local/log,I1,3,5120", "Get Log Type Failed. LogTypeID=I2", "I1;;;;;;", 1},
    {"FifthWithoutCount", "/data/local/log,I1,1,1,I2,1,1,I3,1,1,I4,1,1,I5", "Get Log File Num Failed. LogTypeID=I5",
     "I1;I2;I3;I4;I5;;", 4},
    {"SixthMissing", "/data/local/log,I1,1,1,I2,1,1,I3,1,1,I4,1,1,I5,1,1", "Get Log Type Failed. LogTypeID=I6",
     "I1;I2;I3;I4;I5;;", 5},
    {"SixthWithoutSize", "/data/local/log,I1,1,1,I2,1,1,I3,1,1,I4,1,1,I5,1,1,I6,1",
     "Get Log File Size Failed. LogTypeID=I6", "I1;I2;I3;I4;I5;I6;", 5},
};

class RefusedProperty : public CollectorsProperty, public ::testing::WithParamInterface<refused_value> {};

TEST_P(RefusedProperty, StartsNothingAndKeepsTheAgentUp) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(GetParam().value)));
    const std::vector<std::string> lines = main_thread_lines();
    EXPECT_TRUE(
        in_order(lines, {"start_log_service()", "get_zr_log_config()", "parse_zr_log_config()", GetParam().message,
                         "Parse zr log config failed", "Get log config failed!!!", "sa_handle_init exit"}));
    EXPECT_EQ(rests(file_lines(), "parse_zr_log_config svc[").size(), static_cast<size_t>(GetParam().records));
    EXPECT_EQ(rests(reports(), "FUNC-start_log_service(), error_code=-100, ").size(), 1u);
    EXPECT_EQ(rests(platform_lines(), "check_zr_log_path").size(), 0u);
    EXPECT_EQ(rests(platform_lines(), "start_zr_log_service").size(), 0u);
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 0u);
    EXPECT_EQ(types_in_the_table(kError), GetParam().types);
    EXPECT_EQ(ask("AT\r"), kOk);
}

INSTANTIATE_TEST_SUITE_P(Values, RefusedProperty, ::testing::ValuesIn(kRefused),
                         [](const auto &row) { return std::string(row.param.name); });

TEST_F(CollectorsProperty, RecordsFilledBeforeAFailureKeepTheirNewValues) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({}))));
    ASSERT_EQ(desk_set_property(h, kLogProperty, "/data/local/log,X1,9,9,Y2"), 0);
    EXPECT_EQ(types_in_the_table(kError), "I1;I2;I3;I4;I5;I6;");
    EXPECT_EQ(types_in_the_table(kError), "X1;Y2;I3;I4;I5;I6;");
    // The count and the size of the second record are the old ones: its collector is still off.
    ASSERT_EQ(desk_set_property(h, kLogProperty, log_property({{4, "1,5"}})), 0);
    EXPECT_EQ(types_in_the_table(kOk), "X1;Y2;I3;I4;I5;I6;");
    EXPECT_EQ(types_in_the_table(kOk), "I1;I2;I3;I4;I5;I6;");
    EXPECT_GT(process_with("/data/local/log/logcat.log"), 0) << "a changed property takes effect at the next start";
}

TEST_F(CollectorsProperty, TypeOfFourCharactersAbortsTheAgent) {
    ASSERT_NO_FATAL_FAILURE(
        boot_only(with_log_property("/data/local/log,I1,0,0,LONG,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0")));
    ASSERT_TRUE(desk_until([&] { return !agent_ends().empty(); }));
    EXPECT_EQ(agent_ends()[0].second & 0x7f, SIGABRT);
    EXPECT_EQ(rests(file_lines(), "parse_zr_log_config svc[").size(), 1u);
}

TEST_F(CollectorsProperty, TypeOfThreeCharactersIsWhole) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property("/data/local/log,I10,0,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0")));
    EXPECT_EQ(types_in_the_table(kOk), "I10;I2;I3;I4;I5;I6;");
}

// ---- numbers ----

TEST_F(CollectorsProperty, NumbersAreTextsToLogcatAndValuesToTheRest) {
    ASSERT_NO_FATAL_FAILURE(
        boot(with_log_property("/data/local/log,I1,abc,5x,I2,none,1,I3,0,0,I4,02,0007,I5,0,0,I6,0,0")));
    EXPECT_TRUE(in_order(
        file_lines(),
        {"parse_zr_log_config svc[0] type[I1] type_id[1] file_num[abc] file_num_val[0] file_size[5x] file_size_val[5]",
         "parse_zr_log_config svc[3] type[I4] type_id[4] file_num[02] file_num_val[2] file_size[0007] "
         "file_size_val[7]",
         "start_zr_log_service need no ipdata"}));
    EXPECT_EQ(vector_of(process_with("/data/local/log/logcat.log")),
              "</system/bin/logcat><-r><0007><-v><threadtime><-v><usec><-v><printable><-n><02><-f>"
              "</data/local/log/logcat.log>");
}

// logcat refuses what is no number throughout; the agent notices only at its end.
TEST_F(CollectorsProperty, SizeWithALetterIsLogcatsToRefuse) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{4, "2,7k"}}))));
    EXPECT_EQ(count_lines(file_lines(), "start_log_service All Log Service Start Success."), 1);
    EXPECT_NE(desk_wait_log(h, "zr-qel-sa", "subproc_waiter_service Exit code[1]"), 0u);
}

TEST_F(CollectorsProperty, NumberTextIsCutAt39CharactersAndItsValueIsNot) {
    const std::string zeros(39, '0');
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property("/d,I1," + zeros + "17,0,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0")));
    EXPECT_EQ(count_lines(file_lines(), "parse_zr_log_config svc[0] type[I1] type_id[1] file_num[" + zeros +
                                            "] file_num_val[17] file_size[0] file_size_val[0]"),
              1);
    end();
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property("/d,I1,0," + zeros + "17,I2,0,0,I3,0,0,I4,0,0,I5,0,0,I6,0,0")));
    EXPECT_EQ(count_lines(file_lines(),
                          "parse_zr_log_config svc[0] type[I1] type_id[1] file_num[0] file_num_val[0] "
                          "file_size[" +
                              zeros + "] file_size_val[17]"),
              1);
}

// ---- off ----

TEST_F(CollectorsProperty, CountsOfZeroSwitchEverythingOff) {
    ASSERT_NO_FATAL_FAILURE(boot(
        with_log_property(log_property({{1, "0,5"}, {2, "0,5"}, {3, "0,5"}, {4, "0,5"}, {5, "0,5"}, {6, "0,5"}}))));
    const std::vector<std::string> lines = file_lines();
    EXPECT_EQ(count_lines(lines, "start_zr_log_service need no ipdata"), 1);
    EXPECT_EQ(count_lines(lines, "start_logcat_service_ex need no logcat"), 3);
    EXPECT_EQ(count_lines(lines, "start_log_service All Log Service Start Success."), 1);
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 0u);
    EXPECT_EQ(threads(desk_agent_pid(h)), 2) << "main thread and command reader";
    EXPECT_EQ(desk_file_text(h, "/proc/sys/kernel/printk"), "3 3 1 3\n");
    EXPECT_EQ(desk_list(h, "/data/local/log"), std::vector<std::string>{"sa.log"});
}

TEST_F(CollectorsProperty, SizesOfZeroSwitchEverythingOff) {
    ASSERT_NO_FATAL_FAILURE(boot(
        with_log_property(log_property({{1, "5,0"}, {2, "5,0"}, {3, "5,0"}, {4, "5,0"}, {5, "5,0"}, {6, "5,0"}}))));
    const std::vector<std::string> lines = file_lines();
    EXPECT_EQ(count_lines(lines, "start_zr_log_service need no ipdata"), 1);
    EXPECT_EQ(count_lines(lines, "start_logcat_service_ex need no logcat"), 3);
    EXPECT_EQ(count_lines(lines, "start_log_service All Log Service Start Success."), 1);
    EXPECT_EQ(threads(desk_agent_pid(h)), 2);
    EXPECT_EQ(desk_list(h, "/data/local/log"), std::vector<std::string>{"sa.log"});
}

TEST_F(CollectorsProperty, KernelReaderOffMakesTheConsoleQuiet) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({}))));
    const std::vector<std::string> lines = platform_lines();
    EXPECT_TRUE(in_order(lines, {"start_zr_log_service type_id[3] file_num_val[0] file_size_val[0]",
                                 "start_zr_log_service echo 3 3 1 3 > /proc/sys/kernel/printk\n",
                                 "start_log_service All Log Service Start Success."}));
    EXPECT_EQ(desk_file_text(h, "/proc/sys/kernel/printk"), "3 3 1 3\n");
    // The message ends in a newline of its own.
    EXPECT_NE(desk_file_text(h, kSaLog).find("]start_zr_log_service echo 3 3 1 3 > /proc/sys/kernel/printk\n\n["),
              std::string::npos);
}

class OneCollectorOff : public CollectorsProperty, public ::testing::WithParamInterface<int> {};

TEST_P(OneCollectorOff, LeavesTheOthersRunning) {
    static const char *const kFiles[] = {"",           "ipdata.pcap0",      "kmsg.log",
                                         "logcat.log", "logcat-events.log", "logcat-radio.log"};
    std::map<int, std::string> on = {{2, "5,5"}, {3, "5,5"}, {4, "5,5"}, {5, "5,5"}, {6, "5,5"}};
    on.erase(GetParam());
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property(on))));
    EXPECT_EQ(count_lines(file_lines(), "start_log_service All Log Service Start Success."), 1);
    for (int position = 2; position <= 6; position++) {
        const std::string path = std::string("/data/local/log/") + kFiles[position - 1];
        if (position != GetParam()) {
            EXPECT_TRUE(desk_wait_path(h, path)) << path;
        }
    }
    EXPECT_FALSE(desk_exists(h, std::string("/data/local/log/") + kFiles[GetParam() - 1]));
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), GetParam() == 3 ? 4u : 3u);
}

INSTANTIATE_TEST_SUITE_P(Position, OneCollectorOff, ::testing::Values(2, 3, 4, 5, 6),
                         [](const auto &position) { return "I" + std::to_string(position.param); });
