// Everything that the agent creates, with owner and mode, under three file creation masks: the whole tree of a handset
// in which it has done all it does, compared with created.txt. What is not in that table must not be there.
#include <algorithm>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>

#include "tests/support/commands.h"

// Path of a file or directory, and "file 0644 2000:1007".
using found_tree = std::map<std::string, std::string>;

static const char kProperty[] = "/data/local/log,I1,0,0,I2,2,1,I3,2,64,I4,2,5120,I5,2,5120,I6,2,5120";
static const char *const kRecords[] = {"apanic_console", "apanic_minidump", "apanic_threads"};

class Busy : public CommandTest {
  protected:
    void boot_busy(int mask);
    void keep_busy();
    void wait_files(const std::string &directory);
    void save_and_delete();
    void open_terminals();
    void replace_collectors();
    found_tree walk();

    int listener = -1;
};

class Created : public Busy, public ::testing::WithParamInterface<int> {};

// ---- the busy handset

static desk_file panic_record(const std::string &name) {
    desk_file file;
    file.path = "/data/dontpanic/" + name;
    file.text = "a record\n";
    file.mode = 0640;
    file.gid = 1007;
    return file;
}

// Nothing of the agent's exists yet, and it does not run.
void Busy::boot_busy(int mask) {
    desk_options options = with_log_property(kProperty);
    options.agent = false;
    options.log_dir = false;
    options.umask = mask;
    for (const char *name : kRecords) {
        options.files.push_back(panic_record(name));
    }
    options.absent = {"/data/anr", "/data/tombstones"};
    add_quick_programs(&options);
    options.prepare = [](desk *handset) { return desk_make_dir(handset, "/data/log/SystemLog"); };
    boot_only(options);
}

void Busy::save_and_delete() {
    EXPECT_EQ(command("+SAVE_LOG", 60000), kOk);
    std::string value = kProperty;
    value.replace(0, value.find(','), "/data/other");
    ASSERT_EQ(desk_set_property(h, kLogProperty, value), 0);
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
    ASSERT_NO_FATAL_FAILURE(wait_files("/data/other"));
}

void Busy::wait_files(const std::string &directory) {
    for (const char *name : {"/logcat.log", "/logcat-events.log", "/logcat-radio.log", "/kmsg.log"}) {
        ASSERT_TRUE(desk_wait_path(h, directory + name)) << name;
    }
    // The reader that is stopped before it has set the owner leaves the file as it is then.
    ASSERT_TRUE(desk_until([&] { return desk_owner(h, directory + "/kmsg.log") == "0644 2000:1007"; }));
}

// Every request that leaves something behind, and two more starts, which shift what the ones before have left.
void Busy::keep_busy() {
    start_agent();
    ASSERT_NO_FATAL_FAILURE(wait_files("/data/local/log"));
    for (const char *request : {"+AUTO_START_SERVICE=\"zr-elog\",1", "+DATA_PACKETS_LOG=1", "+SYSTEM=\"true\"",
                                "+DMESG_LOG=1", "+DMESG_LOG=0"}) {
        EXPECT_EQ(command(request), kOk) << request;
    }
    ASSERT_TRUE(desk_wait_path(h, "/data/log/SystemLog/dmesg.log"));  // written in the background
    EXPECT_EQ(command("+DMESG_LOG=1"), kOk);
    ASSERT_TRUE(desk_wait_path(h, "/data/log/SystemLog/dmesg.log"));
    ASSERT_NO_FATAL_FAILURE(save_and_delete());
    ASSERT_EQ(desk_set_property(h, kLogProperty, kProperty), 0);
    restart_agent();
    ASSERT_NO_FATAL_FAILURE(wait_files("/data/local/log"));
    for (const char *name : kRecords) {
        ASSERT_TRUE(desk_write_file(h, std::string("/data/dontpanic/") + name, "another\n", 0640, 0, 1007));
    }
    restart_agent();
    ASSERT_NO_FATAL_FAILURE(wait_files("/data/local/log"));
    open_terminals();
}

// Both channels are open while the tree is looked at, and a connection of the remote shell.
void Busy::open_terminals() {
    listener = desk_open_tty(h, "/dev/ttysa1");
    ASSERT_GE(listener, 0);
    ASSERT_EQ(write(listener, "shell:exec sleep 99", 19), 19);
    char terminal[64];
    ASSERT_GT(read(listener, terminal, sizeof(terminal)), 0);
    ASSERT_EQ(write(listener, "ack", 3), 3);
    ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "handle_service ret["), 0u);
}

// ---- the tree

static const char *type_of(mode_t mode) {
    return S_ISDIR(mode) ? "directory" : S_ISLNK(mode) ? "link" : S_ISCHR(mode) ? "terminal" : "file";
}

// The handset's own part of the tree: what lies outside belongs to the machine, to the kernel or to init.
static bool is_left_out(const std::string &path) {
    static const char *const kOthers[] = {"/proc",      "/sys",          "/usr",          "/image",
                                          "/dev/.desk", "/dev/pts/ptmx", "/data/property"};
    return std::any_of(std::begin(kOthers), std::end(kOthers), [&](const char *other) { return path == other; });
}

static void add_entries(desk *h, const std::string &directory, found_tree *tree) {
    for (const std::string &name : desk_list(h, directory.empty() ? "/" : directory)) {
        const std::string path = directory + "/" + name;
        struct stat st;
        if (is_left_out(path) || !desk_lstat(h, path, &st)) {
            continue;
        }
        char text[64];
        snprintf(text, sizeof(text), "%s %04o %u:%u", type_of(st.st_mode), st.st_mode & 07777, st.st_uid, st.st_gid);
        (*tree)[path] = text;
        if (S_ISDIR(st.st_mode)) {
            add_entries(h, path, tree);
        }
    }
}

found_tree Busy::walk() {
    found_tree tree;
    add_entries(h, "", &tree);
    return tree;
}

// ---- the table

struct golden_row {
    std::string pattern;  // of the path; N stands for a number, DATE for a save's name
    std::string type;
    std::string owner;
    unsigned mode = 0;
    bool is_asked = false;  // only passed to the creating call: the mask cuts it
};

static std::vector<golden_row> golden() {
    std::vector<golden_row> rows;
    std::ifstream file(FAULTS_DIRECTORY "/created.txt");
    for (std::string line; std::getline(file, line);) {
        std::istringstream words(line);
        golden_row row;
        std::string how;
        if (line.empty() || line[0] == '#') {
            continue;
        }
        words >> row.pattern >> row.type >> std::oct >> row.mode >> row.owner >> how;
        EXPECT_TRUE(how == "set" || how == "asked") << line;
        row.is_asked = how == "asked";
        rows.push_back(row);
    }
    return rows;
}

static bool is_named(const std::string &pattern, const std::string &path) {
    std::string expression = std::regex_replace(pattern, std::regex("\\."), "\\.");
    expression = std::regex_replace(expression, std::regex("/DATE"), "/[0-9]{4}(_[0-9]{2}){5}");
    expression = std::regex_replace(expression, std::regex("\\bN\\b"), "[0-9]+");
    return std::regex_match(path, std::regex(expression));
}

static std::string wanted(const golden_row &row, int mask) {
    char text[64];
    const unsigned mode = row.is_asked ? row.mode & ~static_cast<unsigned>(mask) : row.mode;
    snprintf(text, sizeof(text), "%s %04o %s", row.type.c_str(), mode, row.owner.c_str());
    return text;
}

// ---- tests

// How the tree differs from the table, one line a difference. What is as it was before the agent started is left out.
static std::string differences(const found_tree &before, const found_tree &now, int mask) {
    const std::vector<golden_row> rows = golden();
    std::vector<bool> is_used(rows.size(), false);
    std::string told;
    for (const auto &[path, found] : now) {
        const auto old = before.find(path);
        if (old != before.end() && old->second == found) {
            continue;
        }
        const auto row = std::find_if(rows.begin(), rows.end(),
                                      [&, name = path](const golden_row &r) { return is_named(r.pattern, name); });
        if (row == rows.end()) {
            told += path + " is not in the table: " + found + "\n";
            continue;
        }
        is_used[static_cast<size_t>(row - rows.begin())] = true;
        told += found == wanted(*row, mask) ? "" : path + ": " + found + " instead of " + wanted(*row, mask) + "\n";
    }
    for (size_t i = 0; i < rows.size(); i++) {
        told += is_used[i] ? "" : rows[i].pattern + " is in the table and nowhere else\n";
    }
    return told;
}

// A file is created before its owner and mode are set, by threads of their own: the tree comes to look like the table.
TEST_P(Created, IsWhatTheTableTellsAndNothingElse) {
    const int mask = GetParam();
    ASSERT_NO_FATAL_FAILURE(boot_busy(mask));
    const found_tree before = walk();
    ASSERT_NO_FATAL_FAILURE(keep_busy());
    std::string different;
    EXPECT_TRUE(desk_until([&] { return (different = differences(before, walk(), mask)).empty(); })) << different;
    close(listener);
}

static std::string mask_name(const ::testing::TestParamInfo<int> &mask) {
    return "Of" + std::to_string(mask.param / 8) + std::to_string(mask.param % 8);
}
INSTANTIATE_TEST_SUITE_P(Masks, Created, ::testing::Values(000, 022, 077), mask_name);

// ---- what children are given

// What a process has open, but for the null device, which all share by right.
static std::vector<std::string> targets(const std::vector<std::string> &descriptors) {
    std::vector<std::string> found;
    for (const std::string &line : descriptors) {
        const std::string target = line.substr(line.find("-> ") + 3);
        if (target != "/dev/null") {
            found.push_back(target);
        }
    }
    return found;
}

// Collectors that were forked while everything was open.
void Busy::replace_collectors() {
    const pid_t agent = desk_agent_pid(h);
    const std::vector<pid_t> old = children_of(agent);
    EXPECT_EQ(command("+DELETE_LOG"), kOk);
    ASSERT_TRUE(desk_until([&] {
        const std::vector<pid_t> now = children_of(agent);
        const auto stays = [&](pid_t child) { return std::count(now.begin(), now.end(), child) > 0; };
        return now.size() == 5 && std::count_if(old.begin(), old.end(), stays) == 1;
    })) << "four new collectors beside the shell of before";
    ASSERT_TRUE(wait_programs());
}

// Collectors open files and sockets of their own; none of the agent's may be among them. A remote shell has its terminal.
TEST_F(Busy, ChildrenShareNothingWithTheAgent) {
    ASSERT_NO_FATAL_FAILURE(boot_busy(077));
    ASSERT_NO_FATAL_FAILURE(keep_busy());
    ASSERT_NO_FATAL_FAILURE(replace_collectors());
    EXPECT_EQ(command("+SYSTEM=\"for fd in /proc/$$/fd/*; do readlink $fd; done > /dev/.desk/fds; true\""), kOk);
    std::map<std::string, std::vector<std::string>> holdings;
    const pid_t agent = desk_agent_pid(h);
    for (const pid_t child : children_of(agent)) {
        holdings[vector_of(child)] = targets(descriptors(child));
    }
    EXPECT_EQ(holdings.size(), 5u) << "four collectors and a shell";
    const std::vector<std::string> shell = holdings["<sleep><99>"];
    EXPECT_EQ(shell, (std::vector<std::string>{"/dev/ptmx", "/dev/ptmx", "/dev/ptmx"}));
    holdings.erase("<sleep><99>");
    const std::string shell_command = desk_file_text(h, "/dev/.desk/fds");
    EXPECT_NE(shell_command.find("/dev/null"), std::string::npos) << "a shell command has streams: " << shell_command;
    const std::vector<std::string> own = targets(descriptors(agent));
    ASSERT_GE(own.size(), 5u) << "channel, listener, connection, kernel messages in and out, log socket";
    for (const std::string &target : own) {
        for (const auto &[child, held] : holdings) {
            EXPECT_EQ(count_lines(held, target), 0) << child << " holds " << target;
        }
        EXPECT_EQ(shell_command.find(target), std::string::npos) << "a shell command: " << target;
    }
    close(listener);
}
