// Panic records: which files cause a save, the generations of each record, and the log lines.
#include "tests/support/collectors.h"

static const char kSources[] = "/data/dontpanic/";
static const char kSaved[] = "/data/log/SystemLog/";
static const char *const kSets[] = {"apanic_minidump", "apanic_console", "apanic_threads"};

class PanicRecords : public CollectorTest {
  protected:
    // Options of a handset with these records left by the platform; the directory of the saved ones exists.
    static desk_options with_sources(const std::vector<std::string> &names);
    // The commands that the step ran, as "status, command".
    std::vector<std::string> commands();
    // First line of a saved file, "" when there is none.
    std::string saved(const std::string &name);
};

static desk_file file_with(const std::string &path, const std::string &text) {
    desk_file file;
    file.path = path;
    file.text = text;
    file.mode = 0640;
    return file;
}

desk_options PanicRecords::with_sources(const std::vector<std::string> &names) {
    desk_options options = quiet_options();
    for (const std::string &name : names) {
        options.files.push_back(file_with(kSources + name, "new " + name + "\n"));
    }
    options.prepare = [](desk *handset) { return desk_make_dir(handset, "/data/log/SystemLog", 0775, 0, 0); };
    return options;
}

std::vector<std::string> PanicRecords::commands() {
    std::vector<std::string> found = rests(platform_lines(), "PUB_UTIL_CALL_SYSTEM(");
    for (std::string &line : found) {
        line.pop_back();
    }
    return found;
}

std::string PanicRecords::saved(const std::string &name) {
    const std::string text = desk_file_text(h, kSaved + name);
    return text.substr(0, text.find('\n'));
}

TEST_F(PanicRecords, WithoutASourceNothingIsTouched) {
    desk_options options = with_sources({});
    for (const char *name : kSets) {
        options.files.push_back(file_with(std::string(kSaved) + name, "old\n"));
        options.files.push_back(file_with(std::string(kSaved) + name + ".3", "oldest\n"));
    }
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_TRUE(commands().empty());
    for (const std::string name : kSets) {
        EXPECT_EQ(saved(name), "old");
        EXPECT_EQ(saved(name + ".3"), "oldest");
        EXPECT_FALSE(desk_exists(h, kSaved + name + ".1"));
    }
}

// ---- every mix of sources: each set is rotated, the ones that have a source are copied ----

class PanicSources : public PanicRecords, public ::testing::WithParamInterface<int> {};

TEST_P(PanicSources, AreSavedAndAllSetsShift) {
    std::vector<std::string> sources;
    for (int set = 0; set < 3; set++) {
        if ((GetParam() >> set & 1) != 0) {
            sources.push_back(kSets[set]);
        }
    }
    desk_options options = with_sources(sources);
    for (const std::string name : kSets) {
        for (const std::string generation : {"", ".1", ".2", ".3"}) {
            options.files.push_back(file_with(kSaved + name + generation, "was " + name + generation + "\n"));
        }
    }
    ASSERT_NO_FATAL_FAILURE(boot(options));

    std::vector<std::string> wanted;
    for (const std::string name : kSets) {
        const bool is_there = count_lines(sources, name) > 0;
        wanted.push_back((is_there ? "0, cp " : "256, cp ") + (kSources + name) + " /data/log/SystemLog");
        if (is_there) {
            wanted.push_back("0, date >> " + (kSaved + name));
        }
        EXPECT_EQ(saved(name), is_there ? "new " + name : "");
        EXPECT_EQ(desk_exists(h, kSaved + name), is_there);
        EXPECT_EQ(saved(name + ".1"), "was " + name);
        EXPECT_EQ(saved(name + ".2"), "was " + name + ".1");
        EXPECT_EQ(saved(name + ".3"), "was " + name + ".2");
        EXPECT_FALSE(desk_exists(h, kSources + name)) << "the source is used up";
    }
    EXPECT_EQ(commands(), wanted);
    EXPECT_EQ(rests(reports(), "FUNC-sa_handle_init(), error_code=-118, ").size(), 3 - sources.size());
    EXPECT_EQ(rests(platform_lines(), "error(256) to exec: cp /data/dontpanic/apanic_").size(), 3 - sources.size());
}

static std::string mix_name(const ::testing::TestParamInfo<int> &mix) {
    const char *const names[] = {"Minidump", "Console", "Threads"};
    std::string name;
    for (int set = 0; set < 3; set++) {
        name += (mix.param >> set & 1) != 0 ? names[set] : "";
    }
    return name;
}

INSTANTIATE_TEST_SUITE_P(Mix, PanicSources, ::testing::Range(1, 8), mix_name);

TEST_F(PanicRecords, FailedCopyIsReportedInThisOrder) {
    ASSERT_NO_FATAL_FAILURE(boot(with_sources({"apanic_console"})));
    std::vector<std::string> lines;
    for (const std::string &line : platform_lines()) {  // the source line of a report may change
        const size_t at = line.find(", FUNC-");
        lines.push_back(line.compare(0, 5, "FILE-") == 0 ? "FILE-sa/sa-handle" + line.substr(at, line.rfind(", ") - at)
                                                         : line);
    }
    EXPECT_TRUE(in_order(lines, {"PUB_UTIL_CALL_SYSTEM(256, cp /data/dontpanic/apanic_minidump /data/log/SystemLog)",
                                 "FILE-sa/sa-handle, FUNC-sa_handle_init(), error_code=-118",
                                 "error(256) to exec: cp /data/dontpanic/apanic_minidump /data/log/SystemLog",
                                 "PUB_UTIL_CALL_SYSTEM(0, cp /data/dontpanic/apanic_console /data/log/SystemLog)",
                                 "PUB_UTIL_CALL_SYSTEM(0, date >> /data/log/SystemLog/apanic_console)",
                                 "PUB_UTIL_CALL_SYSTEM(256, cp /data/dontpanic/apanic_threads /data/log/SystemLog)"}));
    EXPECT_TRUE(in_order(
        without_thread_ids(lines),
        {"sa_handle_init m_read_cmd_thread_id[N] ret_val[0]",
         "PUB_UTIL_CALL_SYSTEM(0, cp /data/dontpanic/apanic_console /data/log/SystemLog)", "sa_handle_init exit"}))
        << "the command channel does not wait for it";
}

TEST_F(PanicRecords, CopyEndsWithTheDate) {
    desk_options options = with_sources({"apanic_threads"});
    options.timezone = "XYZ-5:30";
    ASSERT_NO_FATAL_FAILURE(boot(options));
    const std::string text = desk_file_text(h, std::string(kSaved) + "apanic_threads");
    const std::string source = "new apanic_threads\n";
    ASSERT_EQ(text.compare(0, source.size(), source), 0) << text;
    const std::string date = text.substr(source.size());
    EXPECT_NE(date.find(" XYZ 20"), std::string::npos) << date;
    EXPECT_EQ(date.find('\n'), date.size() - 1) << "one line";
}

TEST_F(PanicRecords, SecondBootFindsNothing) {
    ASSERT_NO_FATAL_FAILURE(boot(with_sources({"apanic_console"})));
    const std::string first = desk_file_text(h, std::string(kSaved) + "apanic_console");
    const size_t ran = commands().size();
    ASSERT_EQ(ran, 4u);
    ASSERT_NO_FATAL_FAILURE(restart_agent());
    EXPECT_EQ(commands().size(), ran);
    EXPECT_EQ(desk_file_text(h, std::string(kSaved) + "apanic_console"), first);
    EXPECT_FALSE(desk_exists(h, std::string(kSaved) + "apanic_console.1"));
}

TEST_F(PanicRecords, LastFourPanicsAreKept) {
    ASSERT_NO_FATAL_FAILURE(boot(with_sources({"apanic_console"})));
    for (const std::string count : {"second", "third", "fourth", "fifth"}) {
        ASSERT_TRUE(desk_write_file(h, std::string(kSources) + "apanic_console", count + "\n"));
        ASSERT_NO_FATAL_FAILURE(restart_agent());
    }
    EXPECT_EQ(saved("apanic_console"), "fifth");
    EXPECT_EQ(saved("apanic_console.1"), "fourth");
    EXPECT_EQ(saved("apanic_console.2"), "third");
    EXPECT_EQ(saved("apanic_console.3"), "second");
    EXPECT_EQ(desk_list(h, kSaved).size(), 4u) << "and nothing of the sets without a panic";
}

TEST_F(PanicRecords, WithNowhereToSaveThemAreLostAllTheSame) {
    desk_options options = with_sources({"apanic_minidump"});
    options.prepare = nullptr;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(commands(), (std::vector<std::string>{"256, cp /data/dontpanic/apanic_minidump /data/log/SystemLog",
                                                    "256, cp /data/dontpanic/apanic_console /data/log/SystemLog",
                                                    "256, cp /data/dontpanic/apanic_threads /data/log/SystemLog"}));
    EXPECT_FALSE(desk_exists(h, std::string(kSources) + "apanic_minidump"));
    EXPECT_FALSE(desk_exists(h, "/data/log"));
}

// Without the command reader there is nobody to ask for the records: they wait for the next start.
TEST_F(PanicRecords, WaitWhenTheCommandReaderCannotStart) {
    desk_options options = with_sources({"apanic_console"});
    options.agent = false;
    options.restart_ms = 60000;
    add_failing_calls(&options);
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_NO_FATAL_FAILURE(fail_call(h, "pthread_create", EAGAIN));
    ASSERT_EQ(desk_service_start(h, "zr-qel-sa"), 0);
    ASSERT_TRUE(desk_until([&] { return !agent_ends().empty(); }));
    EXPECT_EQ(agent_ends()[0].second, (-118 & 0xff) << 8);
    EXPECT_TRUE(in_order(platform_lines(), {"sa_handle_init m_read_cmd_thread_id[0] ret_val[11]",
                                            "pthread_create() fail: 11", "sa_handle_init exit"}));
    EXPECT_EQ(rests(reports(), "FUNC-sa_handle_init(), error_code=-118, ").size(), 1u);
    EXPECT_TRUE(in_order(file_lines(), {"sa_handle_init m_read_cmd_thread_id[0] ret_val[11]",
                                        "sa_handle_init exit ret_val[-118]", "main sa_handle_init ret_val[-118]"}));
    EXPECT_TRUE(commands().empty());
    EXPECT_TRUE(desk_exists(h, std::string(kSources) + "apanic_console"));
    EXPECT_EQ(desk_owner(h, "/data/local.prop"), "0666 0:0") << "the steps behind it still run";
    EXPECT_EQ(rests(platform_lines(), "sa_listener_loop").size(), 0u);
}
