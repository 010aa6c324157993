// The packet collector: its program, sizes and file, and that packets reach the file.
#include <signal.h>

#include "tests/support/collectors.h"

static const char kBase[] = "/data/local/log/ipdata.pcap";
static const char kFirst[] = "/data/local/log/ipdata.pcap0";
static const char kInstalled[] = "/system/xbin/tcpdump";
static const char kProvided[] = "/data/local/tmp/tcpdump";
static const char kProvider[] = "/system/lib/libexport_tcpdump.so";

class PacketCapture : public CollectorTest {};

// ---- arguments ----

struct size_case {
    const char *property;
    const char *millions;
};

static void PrintTo(const size_case &one, std::ostream *out) {
    *out << one.property;
}

class PacketCaptureSize : public PacketCapture, public ::testing::WithParamInterface<size_case> {};

TEST_P(PacketCaptureSize, BecomesMillionsOfBytes) {
    desk_options options = with_log_property(log_property({{2, std::string("3,") + GetParam().property}}));
    options.prepare = [](desk *handset) { return put_waiting_program(handset, kInstalled); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const std::string size = GetParam().millions;
    EXPECT_EQ(vector_of(process_with(kBase)),
              "<tcpdump><-p><-v><-s><0><-i><any><-w></data/local/log/ipdata.pcap><-C><" + size + "><-W><3>");
    const std::string command_line =
        "command[tcpdump -p -v -s 0 -i any -w /data/local/log/ipdata.pcap -C " + size + " -W 3]";
    EXPECT_EQ(count_lines(platform_lines(), "start_zr_log_service " + command_line), 1);
    EXPECT_EQ(count_lines(file_lines(), "start_zr_log_service IPDATA " + command_line), 1);
}

INSTANTIATE_TEST_SUITE_P(Kilobytes, PacketCaptureSize,
                         ::testing::Values(size_case{"1", "1"}, size_case{"999", "1"}, size_case{"1000", "2"},
                                           size_case{"8192", "9"}, size_case{"20480", "21"}, size_case{"-5", "1"}),
                         [](const auto &row) {
                             const std::string size = row.param.property;
                             return "Of" + (size[0] == '-' ? "Minus" + size.substr(1) : size);
                         });

TEST_F(PacketCapture, LaunchesWithOneMoreThanItsArguments) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{2, "5,8192"}}))));
    EXPECT_TRUE(
        in_order(main_thread_lines(),
                 {"start_zr_log_service()", "start_zr_log_service type_id[2] file_num_val[5] file_size_val[8192]",
                  "start_zr_log_service tcpdump[/system/xbin/tcpdump]",
                  "start_zr_log_service command[tcpdump -p -v -s 0 -i any -w /data/local/log/ipdata.pcap -C 9 "
                  "-W 5]",
                  "sa_create_subproc_thread()", "sa_create_subproc_thread cmd[/system/xbin/tcpdump] param_size[14]",
                  "start_zr_log_service svc_pid[" + std::to_string(process_with(kBase)) + "]"}));
}

// ---- the first file ----

TEST_F(PacketCapture, MakesTheFirstFileForItsOwner) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.prepare = [](desk *handset) { return put_waiting_program(handset, kInstalled); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_owner(h, kFirst), "0644 2000:1007");
    const std::vector<std::string> opened =
        rests(file_lines(), "start_zr_log_service IPDATA open(/data/local/log/ipdata.pcap0) fd[");
    ASSERT_EQ(opened.size(), 1u);
    EXPECT_GT(stoi(opened[0]), 2);
    for (const std::string &open : descriptors(desk_agent_pid(h))) {
        EXPECT_EQ(open.find(kFirst), std::string::npos) << "closed again";
    }
}

TEST_F(PacketCapture, KeepsAnExistingFirstFileAndGivesItAway) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.files.push_back({kFirst, "packets of before", "", 0600, 12, 34});
    options.prepare = [](desk *handset) { return put_waiting_program(handset, kInstalled); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_owner(h, kFirst), "0644 2000:1007");
    EXPECT_EQ(desk_file_text(h, kFirst), "packets of before");
    EXPECT_EQ(rests(file_lines(), "start_zr_log_service IPDATA open(").size(), 0u);
}

// ---- packets ----

TEST_F(PacketCapture, WritesWhatPassesTheHandsetsInterfaces) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{2, "5,8192"}}))));
    const pid_t tcpdump = process_with(kBase);
    ASSERT_TRUE(desk_until([&] {  // it reads the interfaces from then on
        for (const std::string &open : descriptors(tcpdump)) {
            if (open.find(kFirst) != std::string::npos) {
                return true;
            }
        }
        return false;
    }));
    const std::string send = "| /usr/bin/socat -b 1000 - UDP4-SENDTO:127.0.0.1:4711,sourceport=4712";
    ASSERT_EQ(desk_shell(h, "echo a-parcel-of-text " + send).status, 0);
    ASSERT_EQ(desk_shell(h, "head -c 20000 /dev/zero " + send).status, 0);
    struct stat st = {};  // packets come out of the kernel in blocks, and into the file in blocks
    ASSERT_TRUE(desk_until([&] { return desk_stat(h, kFirst, &st) && st.st_size >= 4096; }));
    ASSERT_TRUE(desk_kill(h, tcpdump, SIGINT));  // tcpdump's own way to end: it writes what it still holds
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "subproc_waiter_service Exit code[0]"), 0u);
    const desk_result read = desk_shell(h, "/system/xbin/tcpdump -n -A -r /data/local/log/ipdata.pcap0");
    EXPECT_EQ(read.status, 0) << read.errors;
    EXPECT_NE(read.output.find("127.0.0.1.4712 > 127.0.0.1.4711: UDP, length 17"), std::string::npos) << read.output;
    EXPECT_NE(read.output.find("a-parcel-of-text"), std::string::npos) << read.output;
}

// ---- the program ----

TEST_F(PacketCapture, PrefersTheInstalledProgram) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.files.push_back(script(kProvided, "exit 1\n"));
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(count_lines(file_lines(), "start_zr_log_service tcpdump[/system/xbin/tcpdump]"), 1);
}

TEST_F(PacketCapture, RunsAProgramProvidedEarlier) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.absent.push_back(kInstalled);
    options.prepare = [](desk *handset) { return put_waiting_program(handset, kProvided); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(count_lines(file_lines(), "start_zr_log_service tcpdump[/data/local/tmp/tcpdump]"), 1);
    EXPECT_EQ(count_lines(file_lines(), "sa_create_subproc_thread cmd[/data/local/tmp/tcpdump] param_size[14]"), 1);
    EXPECT_EQ(count_lines(platform_lines(), "createTcpdump()"), 0);
    const pid_t tcpdump = process_with(kBase);
    EXPECT_EQ(desk_link_target(h, "/proc/" + std::to_string(tcpdump) + "/exe"), kProvided);
    EXPECT_EQ(status(tcpdump, "Uid"), "0\t0\t0\t0") << "its path has the name in it, too";
}

TEST_F(PacketCapture, AsksTheProviderForAProgram) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.absent.push_back(kInstalled);
    options.files.push_back(stand_in("provider", kProvider));
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_file_text(h, "/dev/.desk/provider.calls"), "/data/local/tmp/tcpdump\n");
    EXPECT_GT(process_with(kBase), 0);
    EXPECT_TRUE(
        in_order(main_thread_lines(), {"createTcpdump()", "start_zr_log_service tcpdump[/data/local/tmp/tcpdump]",
                                       "start_log_service All Log Service Start Success."}));
    EXPECT_EQ(desk_file_text(h, "/proc/" + std::to_string(desk_agent_pid(h)) + "/maps").find(kProvider),
              std::string::npos)
        << "the library is unloaded";
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_EQ(desk_file_text(h, "/dev/.desk/provider.calls"), "/data/local/tmp/tcpdump\n") << "asked once";
}

TEST_F(PacketCapture, WithoutAnyProgramTheOthersStart) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}, {3, "5,5"}, {4, "5,5"}}));
    options.absent.push_back(kInstalled);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const std::vector<std::string> lines = main_thread_lines();
    EXPECT_EQ(rests(lines, "sys call: dlopen() failed! errno = ").size(), 1u);
    EXPECT_EQ(rests(reports(), "FUNC-createTcpdump(), error_code=-1, ").size(), 1u);
    EXPECT_TRUE(in_order(lines, {"start_zr_log_service type_id[2] file_num_val[5] file_size_val[8192]",
                                 "createTcpdump()", "start_zr_log_service no tcpdump exit", "start_logcat_service_ex()",
                                 "start_log_service Not All Log Service Start Success."}));
    EXPECT_FALSE(desk_exists(h, kFirst)) << "the program is looked for first";
    EXPECT_GT(process_with("/data/local/log/logcat.log"), 0);
    EXPECT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    EXPECT_EQ(count_lines(file_lines(), "sa_log_delete_log start_log_service ret_val[-118]"), 1);
}

TEST_F(PacketCapture, ProviderWithoutItsEntryIsUnloaded) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.absent.push_back(kInstalled);
    options.files.push_back(stand_in("provider_without_entry", kProvider));
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(rests(main_thread_lines(), "sys call: dlsym() failed! errno = ").size(), 1u);
    EXPECT_EQ(rests(reports(), "FUNC-createTcpdump(), error_code=-1, ").size(), 1u);
    EXPECT_EQ(count_lines(file_lines(), "start_zr_log_service no tcpdump exit"), 1);
    EXPECT_EQ(desk_file_text(h, "/proc/" + std::to_string(desk_agent_pid(h)) + "/maps").find(kProvider),
              std::string::npos);
}

TEST_F(PacketCapture, ProviderIsNotBelievedButTheFile) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    options.absent.push_back(kInstalled);
    options.files.push_back(stand_in("provider_of_nothing", kProvider));
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_TRUE(in_order(file_lines(), {"start_zr_log_service no tcpdump exit",
                                        "start_log_service Not All Log Service Start Success."}));
    EXPECT_EQ(rests(platform_lines(), "sys call: dl").size(), 0u);
}

TEST_F(PacketCapture, ThatCannotBeLaunchedLeavesNoPid) {
    desk_options options = with_log_property(log_property({{2, "5,8192"}}));
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "fork", ENOMEM));
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    EXPECT_TRUE(in_order(file_lines(), {"sa_create_subproc_thread ret[-1]", "start_zr_log_service svc_pid[-1]",
                                        "start_zr_log_service create IPDATA subprocess failed",
                                        "start_log_service Not All Log Service Start Success."}));
    ASSERT_NO_FATAL_FAILURE(heal_call(h, "fork"));
    const size_t before = file_lines().size();
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
    const std::vector<std::string> lines = file_lines_from(before);
    EXPECT_EQ(count_lines(lines, "sa_kill_all_child_service_ex log_type[I2], svc_pid[0], mthread_id[0]"), 1);
    EXPECT_EQ(rests(lines, "sa_kill_all_child_service_ex IPDATA kill[").size(), 0u) << "nobody to kill";
}

// Off means forgotten: a child that still runs is not stopped by the next round.
TEST_F(PacketCapture, SwitchedOffByTheNextPropertyForgetsItsPid) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{2, "5,8192"}}))));
    ASSERT_EQ(desk_set_property(h, kLogProperty, log_property({})), 0);
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    const size_t before = file_lines().size();
    ASSERT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_EQ(
        count_lines(file_lines_from(before), "sa_kill_all_child_service_ex log_type[I2], svc_pid[0], mthread_id[0]"),
        1);
}
