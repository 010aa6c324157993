// docs/operations.md and the manual pages against a handset in which the agent has done all it does.
#include <signal.h>

#include <algorithm>
#include <regex>
#include <set>

#include "tests/docs/pages.h"
#include "tests/support/collectors.h"

static const char kPage[] = "docs/operations.md";
static const char kManual[] = "docs/zr-qel-sa.8";

static std::string path_of(const std::string &name) {
    const std::string marks = "…";
    return name.compare(0, marks.size(), marks) == 0 ? "/data/local/log" + name.substr(marks.size()) : name;
}

class Operations : public CollectorTest {
  protected:
    // A handset of which the agent makes everything that it can: panic records, a card, no log directory yet.
    void boot_busy() {
        desk_options options;
        options.log_dir = false;
        for (const char *record : {"apanic_console", "apanic_minidump", "apanic_threads"}) {
            desk_file file;
            file.path = std::string("/data/dontpanic/") + record;
            file.text = "a record\n";
            file.mode = 0640;
            file.gid = 1007;
            options.files.push_back(file);
        }
        options.prepare = [](desk *handset) {
            return desk_make_dir(handset, "/data/log/SystemLog") && desk_make_dir(handset, "/data/.protect");
        };
        boot(options);
    }

    // Every command that leaves a file.
    void keep_busy() {
        for (const char *request :
             {"+AUTO_START_SERVICE=\"zr-elog\",1", "+KERNEL_LOG=1", "+DMESG_LOG=1", "+SAVE_LOG"}) {
            EXPECT_EQ(command(request, 60000), kOk) << request;
        }
        hang_up();
        restart_agent();  // the diagnostic log gets owner and mode when it is rotated
        ASSERT_TRUE(desk_wait_path(h, "/data/local/log/logcat-radio.log"));
        ASSERT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));
    }

    // The file itself, or the one whose name has digits where this has letters.
    std::string found(const std::string &path) {
        const size_t stamp = path.find("YYYY");
        if (stamp == std::string::npos) {
            return path;
        }
        const std::string directory = path.substr(0, stamp - 1);
        for (const std::string &name : desk_list(h, directory)) {
            if (std::regex_match(name, std::regex("\\d{4}(_\\d{2}){5}"))) {
                return directory + "/" + name;
            }
        }
        return directory + "/a dated directory";
    }
};

// "0771¹" under init's umask is 0700; "root" is 0:0.
static std::string owner_told(const std::string &owner, const std::string &mode) {
    unsigned bits = static_cast<unsigned>(std::stoul(mode.substr(0, 4), nullptr, 8));
    if (mode.size() > 4) {
        bits &= ~077u;
    }
    char text[64];
    snprintf(text, sizeof(text), "%04o %s", bits, owner == "root" ? "0:0" : owner.c_str());
    return text;
}

TEST_F(Operations, FilesHaveTheTablesOwnersAndModes) {
    ASSERT_NO_FATAL_FAILURE(boot_busy());
    ASSERT_NO_FATAL_FAILURE(keep_busy());
    std::string value = kLogDefault;
    value.replace(0, value.find(','), "/data/other");
    ASSERT_EQ(desk_set_property(h, kLogProperty, value), 0);
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
    ASSERT_TRUE(desk_wait_path(h, "/data/other/kmsg.log"));
    desk_set_property(h, kLogProperty, kLogDefault);
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
    ASSERT_TRUE(desk_wait_path(h, "/data/local/log/logcat-radio.log"));
    ASSERT_TRUE(desk_wait_path(h, "/data/local/log/kmsg.log"));

    int checked = 0;
    for (const page_lines &row : table_below(page(kPage), "Files it writes")) {
        page_lines names = in_backticks(row[0]);
        if (names.empty()) {
            names = {"/data/other"};  // "another directory that the property names"
        }
        for (const std::string &name : names) {
            if (name[0] == '.' || name == "zr.tty.cmd") {
                continue;  // generations; the key
            }
            const std::string path = found(path_of(name));
            EXPECT_TRUE(desk_until([&] { return desk_owner(h, path) == owner_told(row[1], row[2]); }, 5000))
                << path << " is " << desk_owner(h, path) << ", told is " << row[1] << " " << row[2];
            checked++;
        }
    }
    EXPECT_GE(checked, 20);
}

TEST_F(Operations, FilesOfTheManualExist) {
    ASSERT_NO_FATAL_FAILURE(boot_busy());
    ASSERT_NO_FATAL_FAILURE(keep_busy());
    for (const list_item &item : items(page(kManual), ".It Pa")) {
        EXPECT_TRUE(desk_exists(h, item.head)) << item.head;
    }
}

TEST_F(Operations, InstalledFilesAreTheTables) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const page_lines &row : table_below(page(kPage), "Installed files")) {
        EXPECT_TRUE(desk_exists(h, in_backticks(row[0])[0])) << row[0];
    }
}

TEST_F(Operations, DefaultOfThePropertyIsTold) {
    ASSERT_NO_FATAL_FAILURE(boot(desk_options()));
    const std::string line = "get_zr_log_config zr_log_config_value=[";
    const page_lines values = rests(platform_lines(), line);
    ASSERT_EQ(values.size(), 1u);
    const std::string value = values[0].substr(0, values[0].size() - 1);
    EXPECT_EQ(blocks_below(page(kPage), "Properties").at(0), page_lines{value});
    EXPECT_EQ(literals(page(kManual), "DESCRIPTION").at(0), page_lines{value});
}

// ---- signals and options --------------------------------------------------------------------------------------------

TEST_F(Operations, HandledSignalsAreTold) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const std::vector<std::pair<std::string, int>> numbers = {
        {"SIGINT", SIGINT},   {"SIGTERM", SIGTERM}, {"SIGSEGV", SIGSEGV}, {"SIGBUS", SIGBUS},
        {"SIGUSR1", SIGUSR1}, {"SIGUSR2", SIGUSR2}, {"SIGPIPE", SIGPIPE}, {"SIGXFSZ", SIGXFSZ}};
    const std::string status_line = "SigCgt:";
    std::string text = desk_file_text(h, "/proc/" + std::to_string(desk_agent_pid(h)) + "/status");
    const uint64_t caught = std::stoull(text.substr(text.find(status_line) + status_line.size()), nullptr, 16);
    std::string in_manual;
    for (const list_item &item : items(page(kManual), ".It Dv")) {
        in_manual += item.head + " ";
    }
    std::string in_page;
    for (const page_lines &row : table_below(page(kPage), "Signals")) {
        in_page += row[0] + " ";
    }
    uint64_t told = 0;
    for (const std::pair<std::string, int> &number : numbers) {
        EXPECT_NE(in_manual.find(number.first), std::string::npos) << number.first;
        EXPECT_NE(in_page.find(number.first), std::string::npos) << number.first;
        told |= uint64_t(1) << (number.second - 1);
    }
    EXPECT_EQ(caught & 0x7fffffffu, told) << "signals that the agent handles";
}

// "Fl d Ar device" as the words that a caller gives.
static page_lines words_of(const std::string &head) {
    page_lines words = {"-" + head.substr(0, 1)};
    if (head.find(" Ar ") != std::string::npos) {
        words.push_back("3");
    }
    return words;
}

TEST_F(Operations, OptionsDoWhatTheManualSays) {
    desk_options options = quiet_options();
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    std::set<std::string> told;
    for (const list_item &item : items(page(kManual), ".It Fl")) {
        const page_lines words = words_of(item.head);
        told.insert(words[0]);
        page_lines argv = {"/system/bin/zr-qel-sa"};
        argv.insert(argv.end(), words.begin(), words.end());
        if (item.text == "Print a summary and exit.") {
            const desk_result result = run(argv);
            EXPECT_EQ(result.status, 0) << item.head;
            EXPECT_EQ(result.output.find("\nUsage: /system/bin/zr-qel-sa"), 0u) << item.head << result.output;
            continue;
        }
        ASSERT_EQ(item.text, "Accepted and ignored.");
        desk_child agent = launch(words);
        EXPECT_TRUE(wait_listening(agent.pid)) << item.head;
        desk_kill(h, agent.pid, SIGTERM);
        EXPECT_EQ(desk_wait(h, &agent, 10000), 0);
    }
    const std::string usage = run({"/system/bin/zr-qel-sa", "-h"}).output;
    std::set<std::string> printed;
    const std::regex option("\n  (-[a-z]) ");
    for (std::sregex_iterator at(usage.begin(), usage.end(), option), end; at != end; ++at) {
        printed.insert((*at)[1]);
    }
    EXPECT_EQ(told, printed) << "options of the manual and of the summary";
}

// ---- examples -------------------------------------------------------------------------------------------------------

TEST_F(Operations, ExampleOfInitsStanzaIsTheInstalledOne) {
    const page_lines installed = page("etc/zr-qel-sa.rc");
    const page_lines shown = literals(page(kManual), "EXAMPLES").at(0);
    for (const std::string &line : shown) {
        EXPECT_EQ(std::count(installed.begin(), installed.end(), line), 1) << line;
    }
}

TEST_F(Operations, ExamplesOfTheHostToolWork) {
    desk_options options = quiet_options();
    desk_file host;
    host.path = "/system/bin/sa-host";
    host.host_source = SA_HOST;
    options.files.push_back(host);
    ASSERT_NO_FATAL_FAILURE(boot(options));
    hang_up();  // one client at a time
    int ran = 0;
    for (const char *manual : {"docs/sa-host.1", kManual}) {
        for (const page_lines &block : literals(page(manual), "EXAMPLES")) {
            for (const std::string &line : block) {
                if (line.compare(0, 8, "sa-host ") != 0) {
                    continue;
                }
                const desk_result result =
                    desk_shell(h, "mkdir -p /data/try && cd /data/try && echo in > x && " + line, 60000);
                EXPECT_EQ(result.status, 0) << line << "\n" << result.output << result.errors;
                ran++;
            }
        }
    }
    EXPECT_GE(ran, 5);
}

// The words behind ".It Cm" are those of the tool, and it has the options of the page.
TEST_F(Operations, HostToolsManualHasItsOptionsAndSubCommands) {
    desk_options options = quiet_options();
    options.agent = false;
    desk_file host;
    host.path = "/system/bin/sa-host";
    host.host_source = SA_HOST;
    options.files.push_back(host);
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    const std::string help = run({"/system/bin/sa-host", "--help"}).output;
    std::string texts = help;
    std::set<std::string> commands;
    const std::regex command("\n  ([a-z][a-z-]*) ");
    for (std::sregex_iterator at(help.begin(), help.end(), command), end; at != end; ++at) {
        commands.insert((*at)[1].str());
        texts += run({"/system/bin/sa-host", "help", (*at)[1].str()}).output;
    }
    std::set<std::string> told;
    const page_lines manual = page("docs/sa-host.1");
    for (const list_item &item : items(manual, ".It Cm")) {
        told.insert(item.head.substr(0, item.head.find(' ')));
    }
    EXPECT_EQ(told, commands);
    for (const list_item &item : items(manual, ".It Fl")) {
        std::smatch match;
        if (std::regex_match(item.head, match, std::regex("[a-zA-Z] , Fl -([a-z-]+).*"))) {
            EXPECT_NE(texts.find(" --" + match[1].str()), std::string::npos) << item.head;
        }
    }
    for (const char *value : {"/dev/ttyCMD0", "/dev/ttysa1"}) {
        EXPECT_NE(help.find(std::string("(") + value + ")"), std::string::npos) << value;
        EXPECT_EQ(std::count(manual.begin(), manual.end(), std::string(".Pa ") + value + " ."), 1) << value;
    }
}
