// Command children: launch, end, and the log lines and return values of their waiters.
#include <signal.h>

#include <algorithm>

#include "tests/support/collectors.h"

static const char kRadio[] = "/data/local/log/logcat-radio.log";

class Launcher : public CollectorTest {
  protected:
    // Boots with one logcat collector, whose program is this file.
    void boot_with_logcat(const desk_file &program);
    // Pid and text of the lines that one child of the agent wrote itself.
    std::vector<std::string> lines_of_child(pid_t pid);
    // Time at which a line came into the platform log, 0 when it did not.
    double time_of(const std::string &text);
};

void Launcher::boot_with_logcat(const desk_file &program) {
    desk_options options = with_log_property(log_property({{6, "5,5"}}));
    options.files.push_back(program);
    boot(options);
}

std::vector<std::string> Launcher::lines_of_child(pid_t pid) {
    settle();
    return process_lines(pid);
}

double Launcher::time_of(const std::string &text) {
    for (const desk_log_entry &entry : desk_log(h, "zr-qel-sa")) {
        if (entry.text == text) {
            return entry.time;
        }
    }
    return 0;
}

// ---- the log lines of a launch ----

TEST_F(Launcher, OfLogcatIsLoggedByParentAndChild) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{6, "5,5"}}))));
    const pid_t pid = process_with(kRadio);
    const std::string number = std::to_string(pid);
    std::vector<std::string> fd = rests(file_lines(), "sa_create_subproc_thread fd[");
    ASSERT_EQ(fd.size(), 1u);
    fd[0].pop_back();
    const std::vector<std::string> parent = {
        "sa_create_subproc_thread cmd[/system/bin/logcat] param_size[15]",
        "sa_create_subproc_thread fd[" + fd[0] + "]",
        "create_subproc_thread_ex fd[" + fd[0] + "] cmd[/system/bin/logcat] param_size[15]",
        "create_subprocess_ex fd[" + fd[0] + "] cmd[/system/bin/logcat] arg0_size[18] pid[" + number + "]",
        "create_subproc_thread_ex ret_fd[" + fd[0] + "] pid[" + number + "]",
        "create_subproc_thread_ex pid[" + number + "]",
        "sa_create_subproc_thread ret[" + number + "]"};
    EXPECT_TRUE(in_order(main_thread_lines(), parent));
    EXPECT_TRUE(in_order(file_lines(), parent));
    EXPECT_TRUE(in_order(main_thread_lines(), {"sa_create_subproc_thread()", "create_subproc_thread_ex()",
                                               "create_subprocess_ex()", "thread_create()"}));
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess_ex parent process"), 1);
    EXPECT_EQ(rests(file_lines(), "thread_create thd[0] pthread[").size(), 1u);
    const std::vector<std::string> child = lines_of_child(pid);
    EXPECT_TRUE(in_order(
        child, {"create_subprocess_ex tcpdump[0]", "create_subprocess_ex text[/proc/" + number + "/oom_adj]"}));
    EXPECT_EQ(rests(child, "create_subprocess_ex fdoo[").size(), 1u);
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess_ex child process pid[" + number + "]"), 1);
    EXPECT_TRUE(in_order(file_lines(),
                         {"create_subprocess_ex tcpdump[0]", "create_subprocess_ex text[/proc/" + number + "/oom_adj]",
                          "create_subprocess_ex child process pid[" + number + "]"}));
    EXPECT_NE(desk_wait_log(h, "zr-qel-sa", "subproc_waiter_service fd[" + fd[0] + "] pid[" + number + "]"), 0u);
    EXPECT_TRUE(in_order(platform_lines(), {"service_bootstrap_func()", "fd[" + fd[0] + "] pid[" + number + "]",
                                            "subproc_waiter_service fd[" + fd[0] + "] pid[" + number + "]"}));
}

// ---- ends ----

TEST_F(Launcher, ChildKilledBySignalIsReapedAndSaidSo) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{6, "5,5"}}))));
    const pid_t pid = process_with(kRadio);
    const std::string number = std::to_string(pid);
    const size_t descriptors_before = descriptors(desk_agent_pid(h)).size();
    ASSERT_TRUE(desk_kill(h, pid, SIGKILL));
    ASSERT_TRUE(wait_file_line("subproc_waiter_service pid[" + number + "] exit errno[0-Success]"));
    EXPECT_TRUE(in_order(file_lines(), {"subproc_waiter_service p[" + number + "] status[9]",
                                        "subproc_waiter_service pid[" + number + "] killed by signal[9]",
                                        "subproc_waiter_service pid[" + number + "] exit errno[0-Success]"}));
    EXPECT_TRUE(in_order(platform_lines(), {"subproc_waiter_service status[9] p[" + number + "]",
                                            "subproc_waiter_service Killed by signal[9]"}));
    EXPECT_EQ(children_of(desk_agent_pid(h)).size(), 0u) << "no zombie";
    EXPECT_TRUE(desk_until([&] { return descriptors(desk_agent_pid(h)).size() == descriptors_before - 1; }));
    EXPECT_TRUE(desk_until([&] { return threads(desk_agent_pid(h)) == 2; }));
}

TEST_F(Launcher, ChildThatExitsIsReapedWithItsCode) {
    ASSERT_NO_FATAL_FAILURE(boot_with_logcat(script("/system/bin/logcat", "exit 3\n")));
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "subproc_waiter_service Exit code[3]"), 0u);
    const std::vector<std::string> started = rests(file_lines(), "start_logcat_service_ex sa_create_subproc_thread[");
    ASSERT_EQ(started.size(), 1u);
    const std::string number = started[0].substr(0, started[0].size() - 1);
    ASSERT_TRUE(wait_file_line("subproc_waiter_service pid[" + number + "] exit errno[0-Success]"));
    std::vector<std::string> fd = rests(file_lines(), "sa_create_subproc_thread fd[");
    fd[0].pop_back();
    const std::string pair = "subproc_waiter_service fd[" + fd[0] + "] pid[" + number + "]";
    EXPECT_TRUE(in_order(file_lines(), {pair, "subproc_waiter_service p[" + number + "] status[768]", pair,
                                        "subproc_waiter_service pid[" + number + "] exit code[3]",
                                        "subproc_waiter_service pid[" + number + "] exit errno[0-Success]"}));
    EXPECT_TRUE(in_order(
        platform_lines(),
        {pair, "subproc_waiter_service status[768] p[" + number + "]", pair, "subproc_waiter_service Exit code[3]",
         "subproc_waiter_service shell exited fd[" + fd[0] + "] pid[" + number + "] errno[0]"}));
    EXPECT_EQ(count_lines(file_lines(), "start_log_service All Log Service Start Success."), 1)
        << "nobody waits to see whether a collector stays";
}

TEST_F(Launcher, ProgramThatCannotBeExecutedEndsWith255) {
    desk_file program;
    program.path = "/system/bin/logcat";
    program.text = "no program\n";
    program.mode = 0644;
    ASSERT_NO_FATAL_FAILURE(boot_with_logcat(program));
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "subproc_waiter_service Exit code[255]"), 0u);
    EXPECT_EQ(count_lines(platform_lines(),
                          "create_subprocess_ex execvp(/system/bin/logcat) ret_val[-1] error[13-Permission denied]"),
              1);
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess_ex execvp errno[13-Permission denied]"), 1);
    EXPECT_EQ(count_lines(file_lines(), "start_log_service All Log Service Start Success."), 1);
}

class IdentityThatFails : public Launcher, public ::testing::WithParamInterface<std::pair<std::string, std::string>> {};

TEST_P(IdentityThatFails, EndsTheChildBeforeItsProgram) {
    const std::string call = GetParam().first;
    desk_options options = with_log_property(log_property({{2, "5,5"}, {6, "5,5"}}));
    options.files.push_back(script("/system/bin/logcat", "touch /dev/.desk/ran\n"));
    options.prepare = [](desk *handset) { return put_waiting_program(handset, "/system/xbin/tcpdump"); };
    options.agent = false;
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, call, EAGAIN));
    ASSERT_NO_FATAL_FAILURE(start_agent());
    ASSERT_NE(desk_wait_log(h, "zr-qel-sa", "subproc_waiter_service Exit code[255]"), 0u);
    EXPECT_EQ(count_lines(platform_lines(), "create_subprocess_ex " + call + "(" + GetParam().second +
                                                ") error[11-Resource temporarily unavailable]"),
              1);
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess_ex " + call + " errno[11-Resource temporarily unavailable]"),
              1);
    EXPECT_FALSE(desk_exists(h, "/dev/.desk/ran"));
    EXPECT_GT(process_with("/data/local/log/ipdata.pcap"), 0) << "packet capture does not look at the results";
}

INSTANTIATE_TEST_SUITE_P(Calls, IdentityThatFails,
                         ::testing::Values(std::pair<std::string, std::string>("setgid", "AID_LOG"),
                                           std::pair<std::string, std::string>("setuid", "AID_SHELL")),
                         [](const auto &row) { return std::string(row.param.first); });

// ---- launches that fail in the agent ----

TEST_F(Launcher, ForkThatFailsIsReportedAndGivesTheDescriptorBack) {
    desk_options options = with_log_property(log_property({{6, "5,5"}}));
    options.agent = false;
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "fork", ENOMEM));
    ASSERT_NO_FATAL_FAILURE(start_agent());
    EXPECT_TRUE(in_order(
        main_thread_lines(),
        {"create_subprocess_ex fork errno[12-Cannot allocate memory]", "create_subproc_thread_ex ret_fd[-1] pid[-1]",
         "create_subproc_thread_ex create_subprocess_ex error[12-Cannot allocate memory]",
         "sa_create_subproc_thread ret[-1]", "start_logcat_service_ex sa_create_subproc_thread[-1]"}));
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess_ex fork errno[12-Cannot allocate memory]"), 1);
    EXPECT_EQ(count_lines(file_lines(), "create_subprocess_ex parent process"), 0);
    const std::vector<std::string> open = descriptors(desk_agent_pid(h));
    EXPECT_EQ(std::count_if(open.begin(), open.end(),
                            [](const std::string &one) { return one.find("-> /dev/null") != std::string::npos; }),
              3)
        << "the three streams alone";
}

TEST_F(Launcher, ChildWithoutAWaiterRunsOn) {
    desk_options options = with_log_property(log_property({{6, "5,5"}}));
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const pid_t first = process_with(kRadio);
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "pthread_create", EAGAIN));
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    ASSERT_TRUE(desk_wait_gone(h, first));
    const pid_t second = process_with(kRadio);
    EXPECT_GT(second, 0) << "neither killed nor reaped";
    EXPECT_TRUE(in_order(platform_lines(),
                         {"create_subproc_thread_ex thread_create error[11-Resource temporarily unavailable]",
                          "sa_create_subproc_thread ret[-1]", "start_logcat_service_ex create subprocess failed."}));
    EXPECT_EQ(
        count_lines(file_lines(), "create_subproc_thread_ex thread_create errno[11-Resource temporarily unavailable]"),
        1);
    EXPECT_EQ(rests(file_lines(), "thread_create thd[11] pthread[").size(), 1u);
}

// ---- pauses ----

// Lower bounds alone: a busy machine makes them longer, nothing makes them shorter.
TEST_F(Launcher, PausesAfterALaunch) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{6, "5,5"}}))));
    const std::string number = std::to_string(process_with(kRadio));
    EXPECT_GE(time_of("start_logcat_service_ex sa_create_subproc_thread[" + number + "]") -
                  time_of("sa_create_subproc_thread ret[" + number + "]"),
              0.1);
    ASSERT_GT(time_of("sa_create_subproc_thread ret[" + number + "]"), 0);
}

TEST_F(Launcher, KeepsTheDescriptorForAMomentAfterTheEnd) {
    ASSERT_NO_FATAL_FAILURE(boot(with_log_property(log_property({{6, "5,5"}}))));
    const pid_t agent = desk_agent_pid(h);
    const pid_t pid = process_with(kRadio);
    const size_t before = descriptors(agent).size();
    ASSERT_TRUE(desk_kill(h, pid, SIGKILL));
    ASSERT_TRUE(desk_until([&] { return descriptors(agent).size() == before - 1; }));
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    settle();
    const double ended = time_of("subproc_waiter_service Killed by signal[9]");
    ASSERT_GT(ended, 0);
    EXPECT_GE(static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9 - ended, 0.2);
}
