// The collectors that start by default: their order, identity and open descriptors.
#include <unistd.h>

#include "tests/support/collectors.h"
#include "tests/support/sanitized.h"

class CollectorsStart : public CollectorTest {
  protected:
    void boot_with_waiting_programs(desk_options options = desk_options());
};

// Every program that collectors run only waits: what a process has is what the agent gave it.
void CollectorsStart::boot_with_waiting_programs(desk_options options) {
    options.prepare = [](desk *handset) {
        return put_waiting_program(handset, "/system/bin/logcat") &&
               put_waiting_program(handset, "/system/xbin/tcpdump");
    };
    boot(options);
}

TEST_F(CollectorsStart, ReadsTheDefaultIntoSixRecords) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    EXPECT_TRUE(in_order(
        file_lines(),
        {"get_zr_log_config zr_log_config_value=[/data/local/log,I1,3,5120,I2,5,8192,I3,5,20480,I4,5,5120,I5,5,5120,"
         "I6,5,5120]",
         "parse_zr_log_config svc[0] type[I1] type_id[1] file_num[3] file_num_val[3] file_size[5120] "
         "file_size_val[5120]",
         "parse_zr_log_config svc[1] type[I2] type_id[2] file_num[5] file_num_val[5] file_size[8192] "
         "file_size_val[8192]",
         "parse_zr_log_config svc[2] type[I3] type_id[3] file_num[5] file_num_val[5] file_size[20480] "
         "file_size_val[20480]",
         "parse_zr_log_config svc[3] type[I4] type_id[4] file_num[5] file_num_val[5] file_size[5120] "
         "file_size_val[5120]",
         "parse_zr_log_config svc[4] type[I5] type_id[5] file_num[5] file_num_val[5] file_size[5120] "
         "file_size_val[5120]",
         "parse_zr_log_config svc[5] type[I6] type_id[6] file_num[5] file_num_val[5] file_size[5120] "
         "file_size_val[5120]",
         "check_zr_log_path log_path=[/data/local/log]"}));
    EXPECT_EQ(count_lines(platform_lines(),
                          "parse_zr_log_config g_zr_log_svc[2]: type[I3] type_id[3] file_num[5] file_num_val[5] "
                          "file_size[20480] file_size_val[20480]"),
              1);
}

TEST_F(CollectorsStart, StartsPacketsEventsRadioMainAndKernelInThisOrder) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    const std::vector<std::string> wanted = {
        "start_zr_log_service type_id[2] file_num_val[5] file_size_val[8192]",
        "start_logcat_service_ex path[/system/bin/logcat] type[I5] file_num_val[5] file_size_val[5120]",
        "start_logcat_service_ex path[/system/bin/logcat] type[I6] file_num_val[5] file_size_val[5120]",
        "start_logcat_service_ex path[/system/bin/logcat] type[I4] file_num_val[5] file_size_val[5120]",
        "start_zr_log_service type_id[3] file_num_val[5] file_size_val[20480]",
        "start_log_service All Log Service Start Success."};
    EXPECT_TRUE(in_order(file_lines(), wanted));
    EXPECT_TRUE(in_order(main_thread_lines(), wanted));
    EXPECT_EQ(rests(file_lines(), "start_logcat_service_ex path[").size(), 3u);
    EXPECT_EQ(rests(file_lines(), "start_zr_log_service type_id[").size(), 2u);
}

TEST_F(CollectorsStart, RunsTheProgramsWithTheseArguments) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    EXPECT_EQ(vector_of(process_with("/data/local/log/ipdata.pcap")),
              "<tcpdump><-p><-v><-s><0><-i><any><-w></data/local/log/ipdata.pcap><-C><9><-W><5>");
    EXPECT_EQ(vector_of(process_with("/data/local/log/logcat-events.log")),
              "</system/bin/logcat><-r><5120><-v><threadtime><-v><usec><-v><printable><-n><5><-b><events><-f>"
              "</data/local/log/logcat-events.log>");
    EXPECT_EQ(vector_of(process_with("/data/local/log/logcat-radio.log")),
              "</system/bin/logcat><-r><5120><-v><threadtime><-v><usec><-v><printable><-n><5><-b><radio><-f>"
              "</data/local/log/logcat-radio.log>");
    EXPECT_EQ(vector_of(process_with("/data/local/log/logcat.log")),
              "</system/bin/logcat><-r><5120><-v><threadtime><-v><usec><-v><printable><-n><5><-f>"
              "</data/local/log/logcat.log>");
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 4u);
}

TEST_F(CollectorsStart, LeavesFilesWithTheseOwnersAndModes) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    ASSERT_TRUE(desk_wait_text(h, "/data/local/log/logcat.log", "zr-qel-sa"));
    ASSERT_TRUE(desk_wait_path(h, "/data/local/log/logcat-events.log"));
    ASSERT_TRUE(desk_wait_path(h, "/data/local/log/logcat-radio.log"));
    EXPECT_EQ(desk_list(h, "/data/local/log"),
              (std::vector<std::string>{"ipdata.pcap0", "kmsg.log", "logcat-events.log", "logcat-radio.log",
                                        "logcat.log", "sa.log"}));
    EXPECT_EQ(desk_owner(h, "/data/local/log/ipdata.pcap0"), "0644 2000:1007");
    EXPECT_EQ(desk_owner(h, "/data/local/log/kmsg.log"), "0644 2000:1007");
    EXPECT_EQ(desk_owner(h, "/data/local/log/logcat.log"), "0600 2000:1007");
    EXPECT_EQ(desk_owner(h, "/data/local/log/logcat-events.log"), "0600 2000:1007");
    EXPECT_EQ(desk_owner(h, "/data/local/log/logcat-radio.log"), "0600 2000:1007");
    EXPECT_EQ(desk_file_text(h, "/proc/sys/kernel/printk"), "7 4 1 7\n");
}

TEST_F(CollectorsStart, FilesTheBuffersApart) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    ASSERT_EQ(desk_shell(h, "log -b radio -t RILJ ring").status, 0);
    ASSERT_EQ(desk_shell(h, "log -t Kitchen kettle").status, 0);
    ASSERT_EQ(desk_shell(h, "log -e 2722 i:42").status, 0);
    EXPECT_TRUE(desk_wait_text(h, "/data/local/log/logcat-radio.log", "I RILJ    : ring\n"));
    EXPECT_TRUE(desk_wait_text(h, "/data/local/log/logcat.log", "I Kitchen : kettle\n"));
    EXPECT_TRUE(desk_wait_text(h, "/data/local/log/logcat-events.log", ": 42\n"));
    EXPECT_EQ(desk_file_text(h, "/data/local/log/logcat-radio.log").find("kettle"), std::string::npos);
    EXPECT_EQ(desk_file_text(h, "/data/local/log/logcat.log").find(": ring\n"), std::string::npos);
    EXPECT_EQ(desk_file_text(h, "/data/local/log/logcat-events.log").find("kettle"), std::string::npos);
}

TEST_F(CollectorsStart, RunsLogcatAsShellWithinTheLogGroup) {
    ASSERT_NO_FATAL_FAILURE(boot_with_waiting_programs());
    const pid_t logcat = process_with("/data/local/log/logcat.log");
    EXPECT_EQ(status(logcat, "Uid"), "2000\t2000\t2000\t2000");
    EXPECT_EQ(status(logcat, "Gid"), "1007\t1007\t1007\t1007");
    EXPECT_EQ(stat(logcat, 5), logcat) << "leads its own process group";
    EXPECT_EQ(stat(logcat, 6), stat(desk_agent_pid(h), 6)) << "stays in the agent's session";
    EXPECT_EQ(status(logcat, "Umask"), "0077") << "the agent's own";
}

TEST_F(CollectorsStart, RunsTcpdumpAsRootInItsOwnSession) {
    ASSERT_NO_FATAL_FAILURE(boot_with_waiting_programs());
    const pid_t tcpdump = process_with("/data/local/log/ipdata.pcap");
    EXPECT_EQ(status(tcpdump, "Uid"), "0\t0\t0\t0");
    EXPECT_EQ(status(tcpdump, "Gid"), "0\t0\t0\t0");
    EXPECT_EQ(stat(tcpdump, 6), tcpdump);
    EXPECT_EQ(stat(tcpdump, 5), tcpdump);
    EXPECT_EQ(status(tcpdump, "Umask"), "0077");
    EXPECT_EQ(desk_link_target(h, "/proc/" + std::to_string(tcpdump) + "/cwd"), "/");
}

// The mask of tcpdump is set whatever the agent's own is; logcat keeps the agent's.
TEST_F(CollectorsStart, SetsTheCreationMaskOfTcpdumpAlone) {
    desk_options options;
    options.umask = 0;
    ASSERT_NO_FATAL_FAILURE(boot_with_waiting_programs(options));
    EXPECT_EQ(status(process_with("/data/local/log/ipdata.pcap"), "Umask"), "0077");
    EXPECT_EQ(status(process_with("/data/local/log/logcat.log"), "Umask"), "0000");
}

TEST_F(CollectorsStart, HandsNoDescriptorAndNoSignalStateOfItsOwnToChildren) {
    ASSERT_NO_FATAL_FAILURE(boot_with_waiting_programs());
    const int listener = desk_open_tty(h, "/dev/ttysa1");  // an interactive shell, whose terminal the agent holds
    ASSERT_GE(listener, 0);
    ASSERT_EQ(write(listener, "shell:", 6), 6);
    char terminal[64];
    ASSERT_GT(read(listener, terminal, sizeof(terminal)), 0);
    ASSERT_EQ(write(listener, "ack", 3), 3);
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "handle_service ret["), 0u);
    ASSERT_EQ(command("+DELETE_LOG"), kOk);  // the second set starts when everything of the agent is open
    const pid_t agent = desk_agent_pid(h);
    ASSERT_TRUE(desk_until([&] { return children_of(agent).size() == 5; })) << "the first set is reaped";
    ASSERT_TRUE(wait_programs());
    int examined = 0;
    for (const pid_t child : children_of(agent)) {
        if (vector_of(child) == "</system/bin/sh><->") {
            continue;  // it has its terminal
        }
        examined++;
        EXPECT_EQ(descriptors(child), (std::vector<std::string>{"0 -> /dev/null", "1 -> /dev/null", "2 -> /dev/null"}))
            << vector_of(child);
        EXPECT_EQ(status(child, "SigBlk"), "0000000000000000") << vector_of(child);
        EXPECT_EQ(status(child, "SigIgn"), "0000000000000000") << vector_of(child);
    }
    EXPECT_EQ(examined, 4);
    close(listener);
}

TEST_F(CollectorsStart, ShellCommandsOfTheAgentInheritNothing) {
    desk_options options;
    options.files.push_back(script("/system/bin/busybox",
                                   "for fd in /proc/$$/fd/*; do readlink $fd; done "
                                   ">> /dev/.desk/busybox.fds\nexec /system/xbin/busybox \"$@\"\n"));
    ASSERT_NO_FATAL_FAILURE(boot_with_waiting_programs(options));
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    const std::string found = desk_file_text(h, "/dev/.desk/busybox.fds");
    EXPECT_NE(found.find("/dev/null\n"), std::string::npos);
    for (const char *own : {"ptmx", "kmsg", "sa.log", "pts", "socket:"}) {
        EXPECT_EQ(found.find(own), std::string::npos) << own << " in:\n" << found;
    }
}

// Three waiters of children and the rest of the agent do not commit memory for default stacks of 8 MiB each.
TEST_F(CollectorsStart, WaitersHaveSmallStacks) {
    if (is_sanitized()) {
        GTEST_SKIP() << "a sanitizer's own memory is more than the stacks are";
    }
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({}))));
    const int without = stoi(status(desk_agent_pid(h), "VmData"));
    end();
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{4, "5,5120"}, {5, "5,5120"}, {6, "5,5120"}}))));
    EXPECT_EQ(threads(desk_agent_pid(h)), 2 + 3);
    const int with_three = stoi(status(desk_agent_pid(h), "VmData"));
    EXPECT_LT(with_three - without, 3 * 1024) << "kB";
}
