// The whole agent while a resource is scarce, and after it is back: what each request is answered meanwhile, that nothing
// of it stays, and that everything works again. What a single function does without the resource is tested beside that
// function's other tests.
#include <unistd.h>

#include <algorithm>

#include "tests/faults/acts.h"
#include "tests/support/commands.h"
#include "tests/support/sanitized.h"

class Scarce : public CommandTest {
  protected:
    void come_up(const desk_options &options = quiet_options());
    // What the agent may use at most of something, "nofile=8:4096".
    void limit(const std::string &what);
    // "a shell" when the remote shell runs a command.
    std::string shell();
    // Expects OK from every request, as without a missing resource.
    void expect_all_well();
    ::testing::AssertionResult holds_no_more();
    // Once those that have been stopped are reaped.
    bool has_children(size_t count);
    void fill_data();

    pid_t agent = -1;

  private:
    std::vector<std::string> targets();

    std::vector<std::string> targets_before;
    int threads_before = 0;
};

void Scarce::come_up(const desk_options &options) {
    boot(options);
    if (HasFatalFailure()) {
        return;
    }
    agent = desk_agent_pid(h);
    ASSERT_EQ(ask("AT\r"), kOk);
    int looks = 0;  // until the start has left nothing half open
    ASSERT_TRUE(desk_until([&] {
        looks = targets() == targets_before && threads(agent) == threads_before ? looks + 1 : 0;
        targets_before = targets();
        threads_before = threads(agent);
        return looks == 10;
    }));
}

void Scarce::limit(const std::string &what) {
    ASSERT_EQ(run({"/usr/bin/prlimit", "--pid", std::to_string(agent), "--" + what}).status, 0) << what;
}

std::string Scarce::shell() {
    subject s;
    s.h = h;
    s.agent = agent;
    return remote_shell(&s);
}

// A log line's moment does not count.
std::vector<std::string> Scarce::targets() {
    std::vector<std::string> found;
    for (const std::string &line : descriptors(agent)) {
        const std::string target = line.substr(line.find("->"));
        if (target.find("sa.log") == std::string::npos) {
            found.push_back(target.substr(0, target.find(':')));
        }
    }
    std::sort(found.begin(), found.end());
    return found;
}

bool Scarce::has_children(size_t count) {
    return desk_until([&] { return children_of(agent).size() == count; });
}

// To the last byte. What collectors write meanwhile can come in between.
void Scarce::fill_data() {
    ASSERT_TRUE(desk_until([&] { return desk_fill_data(h, 0); })) << desk_error();
}

::testing::AssertionResult Scarce::holds_no_more() {
    if (desk_until([&] { return targets() == targets_before && threads(agent) == threads_before; })) {
        return ::testing::AssertionSuccess();
    }
    ::testing::AssertionResult failure = ::testing::AssertionFailure();
    failure << threads(agent) << " threads, before " << threads_before << "; descriptors:";
    for (const std::string &line : descriptors(agent)) {
        failure << "\n  " << line;
    }
    return failure;
}

void Scarce::expect_all_well() {
    for (const char *request : {"+SYSTEM=\"true\"", "+AUTO_START_SERVICE=\"zr-later\",1",
                                "+AUTO_START_SERVICE=\"zr-later\",0", "+DMESG_LOG=0", "+DMESG_LOG=1", "+DELETE_LOG"}) {
        EXPECT_EQ(command(request), kOk) << request;
    }
    EXPECT_EQ(command("+QUERY_SERVICE=\"logd\""), "\r\nQUERY_SERVICE: 1\r\n\r\nOK\r\n");
    EXPECT_EQ(shell(), "a shell");
    EXPECT_EQ(desk_agent_pid(h), agent) << "the agent has not been started again";
}

// ---- descriptors, processes, memory

TEST_F(Scarce, DescriptorsLeaveTheChannelAndComeBack) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(limit("nofile=3:4096"));
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(command("+QUERY_SERVICE=\"logd\""), "\r\nQUERY_SERVICE: 0\r\n\r\nOK\r\n") << "it cannot look";
    EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",1"), kError) << "the list cannot be opened";
    EXPECT_EQ(command("+DMESG_LOG=1"), kOk) << "a settings file that cannot be opened is no failure";
    const int listener = desk_open_tty(h, "/dev/ttysa1");
    ASSERT_EQ(write(listener, "shell:true", 10), 10);
    EXPECT_NE(desk_wait_log_part(h, "zr-qel-sa", "open_ptm_connection open_ptm failed"), 0u)
        << "the request is dropped";
    ASSERT_NO_FATAL_FAILURE(limit("nofile=1024:4096"));
    close(listener);
    EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",2"), "\r\nAUTO_START_SERVICE: 1\r\n\r\nOK\r\n")
        << "the change has stayed in memory";
    expect_all_well();
    EXPECT_TRUE(holds_no_more());
}

TEST_F(Scarce, DescriptorsForCollectorsAreMissedOnce) {
    ASSERT_NO_FATAL_FAILURE(come_up(desk_options()));
    ASSERT_NO_FATAL_FAILURE(limit("nofile=3:4096"));
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    EXPECT_TRUE(has_children(0)) << "those of before are stopped, none has started";
    ASSERT_NO_FATAL_FAILURE(limit("nofile=1024:4096"));
    expect_all_well();
    EXPECT_TRUE(has_children(4));
    EXPECT_TRUE(holds_no_more());
}

// The kernel does not count root's processes against a limit: the calls are refused as it would.
TEST_F(Scarce, ProcessesLeaveTheChannelAndComeBack) {
    desk_options options;
    add_quick_programs(&options);
    options.absent = {"/data/anr", "/data/log"};
    ASSERT_NO_FATAL_FAILURE(come_up(options));
    ASSERT_NO_FATAL_FAILURE(inject("clone,clone3,fork,vfork:error=EAGAIN"));
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(command("+SYSTEM=\"true\""), kError);
    EXPECT_EQ(command("+START_SERVICE=\"zr-qel-mla3\""), kError);
    EXPECT_EQ(command("+DATA_PACKETS_LOG=1"), kError);
    EXPECT_EQ(command("+DMESG_LOG=1"), kOk) << "nobody looks whether the snapshot was taken";
    EXPECT_EQ(command("+SAVE_LOG"), kOk) << "what could not be copied is in the log alone";
    EXPECT_EQ(command("+DELETE_LOG"), kError);
    EXPECT_EQ(shell(), "no shell");
    ASSERT_NO_FATAL_FAILURE(stop_injecting());
    EXPECT_TRUE(has_children(0));
    expect_all_well();
    EXPECT_EQ(command("+SAVE_LOG"), kOk);
    EXPECT_TRUE(has_children(4));
    EXPECT_TRUE(holds_no_more());
}

TEST_F(Scarce, MemoryLeavesTheChannelAndComesBack) {
    if (is_sanitized()) {
        GTEST_SKIP() << "a sanitizer ends the process when it gets no memory";
    }
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_EQ(command("+KERNEL_LOG=1"), kOk);
    ASSERT_TRUE(wait_file_line("read_kernel_log_loop log_path[/data/local/log/kmsg.log]"));
    ASSERT_NO_FATAL_FAILURE(limit("as=1:"));
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(command("+KERNEL_LOG=0"), kOk);
    EXPECT_TRUE(holds_no_more()) << "a thread can be ended without memory";
    EXPECT_EQ(command("+SYSTEM=\"true\""), kError) << "a shell needs a stack to start from";
    EXPECT_EQ(command("+KERNEL_LOG=1"), kOk) << "nobody looks whether the reader came to life";
    EXPECT_EQ(command("+KERNEL_LOG=0"), kOk);
    EXPECT_EQ(command("+START_SERVICE=\"zr-qel-mla3\""), kError);
    ASSERT_NO_FATAL_FAILURE(limit("as=unlimited:"));
    expect_all_well();
    EXPECT_TRUE(holds_no_more());
}

// ---- space

TEST_F(Scarce, SpaceToTheLastByteIsMissedWhereAFileIsWritten) {
    ASSERT_NO_FATAL_FAILURE(come_up(desk_options()));
    ASSERT_NO_FATAL_FAILURE(fill_data());
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_EQ(command("+SYSTEM=\"true\""), kOk);
    EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",1"), kOk) << "a short write is logged alone";
    EXPECT_EQ(command("+DMESG_LOG=1"), kError) << "the settings are not written";
    EXPECT_EQ(command("+DELETE_LOG"), kError) << "too little room for collectors";
    EXPECT_TRUE(has_children(0));
    EXPECT_EQ(shell(), "a shell");
    ASSERT_TRUE(desk_remove(h, "/data/.fill"));
    expect_all_well();
    EXPECT_TRUE(has_children(4));
    EXPECT_TRUE(holds_no_more());
}

TEST_F(Scarce, SpaceToTheLastByteLetsTheAgentStartWithoutCollectors) {
    desk_options options;
    options.prepare = [](desk *handset) { return desk_fill_data(handset, 0); };
    ASSERT_NO_FATAL_FAILURE(come_up(options));
    EXPECT_TRUE(has_children(0));
    EXPECT_EQ(shell(), "a shell");
    ASSERT_TRUE(desk_remove(h, "/data/.fill"));
    expect_all_well();
    EXPECT_TRUE(has_children(4)) << "+DELETE_LOG has started them";
}

// getprop stands in the middle of the rows; it waits until the card is gone.
TEST_F(Scarce, CardIsPulledInTheMiddleOfASave) {
    desk_options options = quiet_options();
    add_quick_programs(&options);
    options.absent = {"/data/anr", "/data/log"};
    options.files.push_back(script(
        "/system/bin/getprop", "echo > /dev/.desk/half\nuntil [ -e /dev/.desk/go ]; do sleep 0.05; done\necho all\n"));
    ASSERT_NO_FATAL_FAILURE(come_up(options));
    begin("AT SA+SAVE_LOG\r");
    ASSERT_TRUE(desk_wait_path(h, "/dev/.desk/half"));
    ASSERT_TRUE(desk_set_sd_card(h, false));
    ASSERT_TRUE(desk_write_file(h, "/dev/.desk/go", ""));
    EXPECT_EQ(finish(), kOk) << "once begun, a save tries everything";
    const std::string first = destination();
    EXPECT_EQ(request("+SAVE_LOG"), kError) << "no card, no directory";
    ASSERT_TRUE(desk_set_sd_card(h, true));
    EXPECT_TRUE(desk_exists(h, first + "/zr3360regs.log")) << "what came before the card was pulled";
    EXPECT_EQ(desk_file_text(h, first + "/getprop.log"), "all\n") << "its file was open";
    EXPECT_FALSE(desk_exists(h, first + "/bugreport.log"));
    EXPECT_EQ(request("+SAVE_LOG"), kOk);
    EXPECT_TRUE(desk_exists(h, destination() + "/bugreport.log"));
    expect_all_well();
    EXPECT_TRUE(holds_no_more());
}

// ---- things that vanish or change

// A command channel that could not be made anew is gone until the agent starts again; the remote shell is not.
TEST_F(Scarce, PseudoTerminalsCostTheCommandChannelUntilTheNextStart) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    const auto move = [&](const char *from, const char *to) { return run({"/system/bin/mv", from, to}).status; };
    ASSERT_EQ(move("/dev/ptmx", "/dev/away"), 0);
    EXPECT_EQ(command("+SYSTEM=\"true\""), kOk) << "the one that is open goes on";
    hang_up();
    ASSERT_TRUE(wait_file_line("sa_handle_read_cmd_loop exit ret_val[-1]"));
    ASSERT_EQ(move("/dev/away", "/dev/ptmx"), 0);
    EXPECT_FALSE(desk_exists(h, "/dev/ttyCMD0"));
    EXPECT_EQ(shell(), "a shell");
    EXPECT_EQ(desk_agent_pid(h), agent);
    restart_agent();
    agent = desk_agent_pid(h);
    expect_all_well();
}

TEST_F(Scarce, LogDirectoryIsMadeAnewWithTheCollectors) {
    ASSERT_NO_FATAL_FAILURE(come_up(desk_options()));
    ASSERT_TRUE(desk_wait_path(h, "/data/local/log/logcat.log"));
    ASSERT_TRUE(desk_remove(h, "/data/local/log"));
    EXPECT_EQ(ask("AT\r"), kOk);
    EXPECT_FALSE(desk_exists(h, kSaLog));
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
    EXPECT_EQ(desk_owner(h, "/data/local/log"), "0771 2000:2000");
    for (const char *name : {"logcat.log", "logcat-events.log", "logcat-radio.log", "kmsg.log", "ipdata.pcap0"}) {
        EXPECT_TRUE(desk_wait_path(h, std::string("/data/local/log/") + name)) << name;
    }
    EXPECT_TRUE(desk_wait_text(h, kSaLog, "handle_sa_delete_log_set ret_val[0]\n"));
    expect_all_well();
    EXPECT_TRUE(holds_no_more());
}

struct replacement {
    const char *name;
    const char *command;
};

static void PrintTo(const replacement &one, std::ostream *out) {
    *out << one.command;
}

// What stands in the diagnostic file's place while the agent runs and when it starts.
class ScarceLog : public Scarce, public ::testing::WithParamInterface<replacement> {
  protected:
    void replace_log() {
        const std::string replace = std::string("cd /data/local/log; rm -rf sa.log; ") + GetParam().command;
        ASSERT_EQ(run({"/system/bin/sh", "-c", replace}).status, 0);
    }

    // A file of its own, with the last request.
    void expect_log_with(const std::string &line) {
        struct stat st;
        EXPECT_TRUE(wait_file_line(line));
        ASSERT_TRUE(desk_lstat(h, kSaLog, &st));
        EXPECT_TRUE(S_ISREG(st.st_mode));
    }
};

TEST_P(ScarceLog, ComesBackOnceItsPlaceIsFree) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(replace_log());
    EXPECT_EQ(ask("AT\r"), kOk);
    ASSERT_TRUE(desk_remove(h, kSaLog));
    EXPECT_EQ(ask("AT\r"), kOk);
    expect_log_with("sa_handle_read_cmd_loop req[AT\r] ret_val[0]");
    EXPECT_EQ(desk_agent_pid(h), agent);
    EXPECT_TRUE(holds_no_more());
}

TEST_P(ScarceLog, IsReplacedAndComesBackAtTheNextStart) {
    ASSERT_NO_FATAL_FAILURE(come_up());
    ASSERT_NO_FATAL_FAILURE(replace_log());
    expect_all_well();
    EXPECT_TRUE(holds_no_more());
    ASSERT_EQ(run({"/system/bin/sh", "-c", "cd /data/local/log; rm -rf sa.log.*"}).status, 0);
    restart_agent();
    agent = desk_agent_pid(h);
    expect_all_well();
    ASSERT_TRUE(desk_remove(h, kSaLog));
    restart_agent();
    agent = desk_agent_pid(h);
    expect_all_well();
    expect_log_with("sa_handle_read_cmd_loop req[AT SA+DELETE_LOG\r] ret_val[0]");
}

INSTANTIATE_TEST_SUITE_P(Replaced, ScarceLog,
                         ::testing::Values(replacement{"ByADirectory", "mkdir sa.log"},
                                           replacement{"ByADanglingLink", "ln -s /data/nowhere/sa.log sa.log"},
                                           replacement{"ByALinkToItself", "ln -s sa.log sa.log"},
                                           replacement{"ByAPipe", "mkfifo sa.log"},
                                           replacement{"ByAFullDevice", "ln -s /dev/full sa.log"}),
                         [](const auto &one) { return std::string(one.param.name); });
