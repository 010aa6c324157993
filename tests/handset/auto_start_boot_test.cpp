// The auto-start list at the agent's start: files with any content, and the order in which services start.
#include <algorithm>

#include "tests/support/collectors.h"

static const char kDirectory[] = "/data/zr-qel-sa";
static const char kList[] = "/data/zr-qel-sa/auto-start.lst";

class AutoStartBoot : public CollectorTest {
  protected:
    // Boots with this content of the list's file.
    void boot_with_list(const std::string &bytes, desk_options options = quiet_options());
    // Names of the dummy services in the order in which init started them.
    std::vector<std::string> started();
    std::vector<std::string> tried();
};

static std::string slot(const std::string &name) {
    return name + std::string(40 - name.size(), '\0');
}

static std::string image(const std::vector<std::string> &names) {
    std::string bytes;
    for (const std::string &name : names) {
        bytes += slot(name);
    }
    return bytes + std::string(400 - bytes.size(), '\0');
}

void AutoStartBoot::boot_with_list(const std::string &bytes, desk_options options) {
    options.files.push_back({kList, bytes, "", 0600, 0, 0});
    boot(options);
}

std::vector<std::string> AutoStartBoot::started() {
    std::vector<std::string> names;
    for (const desk_event &event : desk_events(h, "svc")) {
        if (event.fields[1] == "running" && event.fields[0] != "zr-qel-sa" && event.fields[0] != "logd") {
            names.push_back(event.fields[0]);
        }
    }
    return names;
}

std::vector<std::string> AutoStartBoot::tried() {
    return rests(platform_lines(), "Try to start service: ");
}

typedef std::vector<std::string> texts;

TEST_F(AutoStartBoot, StartsWhatIsListedBeforeAnythingElse) {
    ASSERT_NO_FATAL_FAILURE(boot_with_list(image({"zr-auto-test", "", "zr-qel-mla5", "zr-qel-mla1"})));
    EXPECT_EQ(started(), (texts{"zr-auto-test", "zr-qel-mla5", "zr-qel-mla1"}));
    EXPECT_TRUE(in_order(platform_lines(),
                         {"sa_handle_init()", "auto_start_service_list_read()", "auto_start_service_list_run()",
                          "Try to start service: zr-auto-test", "Try to start service: zr-qel-mla5",
                          "Try to start service: zr-qel-mla1", "sa_handle_init m_pts_mapping_name_a[/dev/ttyCMD0]",
                          "sa_is_can_start_log_service()", "start_log_service()", "sa_handle_read_cmd_loop()"}));
    EXPECT_EQ(rests(platform_lines(), "error to exec").size(), 0u);
    EXPECT_EQ(rests(platform_lines(), "open file").size(), 0u);
    EXPECT_EQ(rests(platform_lines(), "write not completed").size(), 0u);
}

TEST_F(AutoStartBoot, ListSurvivesRebootsInTheOrderOfItsSlots) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",1"), kOk);
    ASSERT_EQ(command("+AUTO_START_SERVICE=\"zr-qel-mla3\",1"), kOk);
    ASSERT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",0"), kOk);
    ASSERT_EQ(command("+AUTO_START_SERVICE=\"zr-auto-test\",1"), kOk);
    EXPECT_TRUE(started().empty()) << "nothing is started by listing it";
    for (int reboot = 0; reboot < 2; reboot++) {
        hang_up();
        ASSERT_TRUE(desk_reboot(h, true)) << desk_error();
        ASSERT_NE(desk_wait_log_part(h, "zr-qel-sa", "sa_listener_loop fd["), 0u);
        EXPECT_EQ(started(), (texts{"zr-auto-test", "zr-qel-mla3"})) << reboot;
        ASSERT_NO_FATAL_FAILURE(open_channel());
        EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-qel-mla3\",2"), "\r\nAUTO_START_SERVICE: 1\r\n\r\nOK\r\n");
    }
}

// Here the five agents are numbered from 0, unlike those of +START_SERVICE.
TEST_F(AutoStartBoot, LogAgentsAreStartedFromZeroToFour) {
    ASSERT_NO_FATAL_FAILURE(boot_with_list(image({"zr-qel-mla", "zr-qel-mla5"})));
    EXPECT_EQ(started(),
              (texts{"zr-qel-mla0", "zr-qel-mla1", "zr-qel-mla2", "zr-qel-mla3", "zr-qel-mla4", "zr-qel-mla5"}));
    EXPECT_EQ(tried(), (texts{"zr-qel-mla", "zr-qel-mla5"}));
}

// ---- services that init refuses ----

TEST_F(AutoStartBoot, UnknownServiceIsReportedAndTheNextOneStarted) {
    ASSERT_NO_FATAL_FAILURE(boot_with_list(image({"no-such", "zr-auto-test"})));
    EXPECT_EQ(started(), texts{"zr-auto-test"});
    EXPECT_TRUE(in_order(platform_lines(), {"Try to start service: no-such", "error to exec: setprop ctl.start no-such",
                                            "Try to start service: zr-auto-test"}));
    EXPECT_EQ(rests(reports(), "FUNC-auto_start_service_list_run(), error_code=-118, ").size(), 1u);
}

TEST_F(AutoStartBoot, UnknownServiceGoesUnnoticedWhereInitAcceptsEveryName) {
    desk_options options = quiet_options();
    options.old_ctl = true;
    ASSERT_NO_FATAL_FAILURE(boot_with_list(image({"no-such", "zr-auto-test"}), options));
    EXPECT_EQ(started(), texts{"zr-auto-test"});
    EXPECT_EQ(rests(platform_lines(), "error to exec").size(), 0u);
}

// Takes the stanza of one service out of the handset's own.
static bool forget_service(desk *h, const std::string &name) {
    const char *path = "/system/etc/init/dummy_services.rc";
    std::string text;
    if (!desk_read_file(h, path, &text)) {
        return false;
    }
    const size_t begin = text.find("service " + name + " ");
    const size_t end = text.find("\nservice ", begin);
    if (begin == std::string::npos) {
        return false;
    }
    text.erase(begin, end == std::string::npos ? end : end + 1 - begin);
    return desk_write_file(h, path, text);
}

TEST_F(AutoStartBoot, OfTheLogAgentsTheLastOneAloneCounts) {
    desk_options options = quiet_options();
    options.prepare = [](desk *handset) { return forget_service(handset, "zr-qel-mla0"); };
    ASSERT_NO_FATAL_FAILURE(boot_with_list(image({"zr-qel-mla"}), options));
    EXPECT_EQ(started(), (texts{"zr-qel-mla1", "zr-qel-mla2", "zr-qel-mla3", "zr-qel-mla4"}));
    EXPECT_EQ(rests(platform_lines(), "error to exec").size(), 0u);
}

TEST_F(AutoStartBoot, OfTheLogAgentsTheLastCommandLineIsReported) {
    desk_options options = quiet_options();
    options.prepare = [](desk *handset) { return forget_service(handset, "zr-qel-mla4"); };
    ASSERT_NO_FATAL_FAILURE(boot_with_list(image({"zr-qel-mla"}), options));
    EXPECT_EQ(started(), (texts{"zr-qel-mla0", "zr-qel-mla1", "zr-qel-mla2", "zr-qel-mla3"}));
    EXPECT_EQ(rests(platform_lines(), "error to exec: "), texts{"setprop ctl.start zr-qel-mla4"});
}

// ---- files of any content ----

TEST_F(AutoStartBoot, MissingFileIsAnEmptyList) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_TRUE(
        in_order(platform_lines(), {"auto_start_service_list_read()",
                                    "open file \"/data/zr-qel-sa/auto-start.lst\" fail: 2 - No such file or directory",
                                    "auto_start_service_list_run()"}));
    EXPECT_EQ(count_lines(reports(), "FUNC-auto_start_service_list_read(), error_code=-118, errno=2"), 1);
    EXPECT_TRUE(started().empty());
    EXPECT_FALSE(desk_exists(h, kList));
    EXPECT_EQ(desk_owner(h, kDirectory), "0700 0:0");
}

TEST_F(AutoStartBoot, DirectoryIsMadeWithMode0770) {
    desk_options options = quiet_options();
    options.umask = 0;
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(desk_owner(h, kDirectory), "0770 0:0");
}

TEST_F(AutoStartBoot, ShortFileCountsWholeSlotsAlone) {
    ASSERT_NO_FATAL_FAILURE(
        boot_with_list(slot("zr-qel-mla1") + slot("zr-qel-mla2") + "zr-qel-mla3" + std::string(4, '\0')));
    EXPECT_EQ(started(), (texts{"zr-qel-mla1", "zr-qel-mla2"}));
    EXPECT_TRUE(in_order(platform_lines(),
                         {"auto_start_service_list_read()", "WARNING !",
                          "write not completed: to write(10) != written(2)", "auto_start_service_list_run()"}));
}

TEST_F(AutoStartBoot, EmptyFileIsAnEmptyList) {
    ASSERT_NO_FATAL_FAILURE(boot_with_list(""));
    EXPECT_TRUE(tried().empty());
    EXPECT_EQ(count_lines(platform_lines(), "write not completed: to write(10) != written(0)"), 1);
    EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",1"), kOk);
    EXPECT_EQ(desk_file_text(h, kList), image({"zr-elog"}));
}

// Neither opening nor reading a FIFO that nobody writes to may block the start.
TEST_F(AutoStartBoot, FifoIsAnEmptyList) {
    for (const bool has_writer : {false, true}) {
        SCOPED_TRACE(has_writer ? "with a writer" : "without a writer");
        desk_options options = quiet_options();
        options.prepare = [&](desk *handset) {
            const std::string list = kList;
            return desk_make_dir(handset, kDirectory, 0770) &&
                   desk_shell(handset, "busybox mkfifo " + list).status == 0 &&
                   (!has_writer ||
                    desk_shell(handset, "(exec 3<>" + list + "; exec sleep 600) >/dev/null 2>&1 &").status == 0);
        };
        ASSERT_NO_FATAL_FAILURE(boot(options));
        EXPECT_TRUE(tried().empty());
        EXPECT_EQ(ask("AT\r"), kOk);
        EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",2"), "\r\nAUTO_START_SERVICE: 0\r\n\r\nOK\r\n");
        end();
    }
}

TEST_F(AutoStartBoot, LongFileHasTenSlotsAllTheSame) {
    texts names;
    for (int i = 0; i < 12; i++) {
        names.push_back(i == 9 ? "zr-auto-test" : "");
    }
    std::string bytes;
    for (const std::string &name : names) {
        bytes += slot(name);
    }
    ASSERT_NO_FATAL_FAILURE(boot_with_list(bytes + slot("zr-elog") + std::string(5000, 'z')));
    EXPECT_EQ(started(), texts{"zr-auto-test"});
    EXPECT_EQ(rests(platform_lines(), "write not completed").size(), 0u);
}

// Another writer of the file may use a slot's last byte, too. The name ends with the slot, the last one's included.
TEST_F(AutoStartBoot, NameMayFillItsSlot) {
    const std::string full(40, 'A');
    const std::string bytes = full + slot("zr-auto-test") + std::string(280, '\0') + full;
    ASSERT_NO_FATAL_FAILURE(boot_with_list(bytes));
    EXPECT_EQ(tried(), (texts{full, "zr-auto-test", full}));
    EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",1"), kOk);
    EXPECT_EQ(desk_file_text(h, kList), full + slot("zr-auto-test") + slot("zr-elog") + std::string(240, '\0') + full);
}

TEST_F(AutoStartBoot, GarbageIsTriedAndDoesNoHarm) {
    ASSERT_NO_FATAL_FAILURE(boot_with_list(std::string(360, '\xff') + slot("zr-auto-test")));
    EXPECT_EQ(tried().size(), 10u);
    EXPECT_EQ(started(), texts{"zr-auto-test"});
    EXPECT_EQ(ask("AT\r"), kOk);
}

// What stands behind a name's end is not part of it.
TEST_F(AutoStartBoot, GarbageBehindANameIsIgnored) {
    std::string bytes = image({"zr-auto-test"});
    bytes.replace(20, 20, std::string(20, 'g'));
    ASSERT_NO_FATAL_FAILURE(boot_with_list(bytes));
    EXPECT_EQ(started(), texts{"zr-auto-test"});
    EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-auto-test\",2"), "\r\nAUTO_START_SERVICE: 1\r\n\r\nOK\r\n");
}

// ---- the directory ----

TEST_F(AutoStartBoot, FileInTheDirectorysPlaceIsNoList) {
    desk_options options = quiet_options();
    options.files.push_back({kDirectory, "a file\n", "", 0600, 0, 0});
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(count_lines(platform_lines(), "open file \"/data/zr-qel-sa/auto-start.lst\" fail: 20 - Not a directory"),
              1);
    EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",1"), kError);
    EXPECT_EQ(desk_file_text(h, kDirectory), "a file\n");
}

// A directory that cannot be reached: the path stays the directory's, and a later change writes a file of its name.
TEST_F(AutoStartBoot, UnreachableDirectoryIsWrittenAsAFile) {
    desk_options options = quiet_options();
    options.agent = false;
    ASSERT_NO_FATAL_FAILURE(boot_only(options));
    ASSERT_EQ(desk_shell(h, "ln -s /data/elsewhere /data/zr-qel-sa").status, 0);  // leads nowhere
    ASSERT_NO_FATAL_FAILURE(start_agent());
    EXPECT_EQ(rests(platform_lines(), "open file").size(), 0u) << "nothing was opened";
    EXPECT_EQ(command("+AUTO_START_SERVICE=\"zr-elog\",1"), kOk);
    EXPECT_EQ(desk_file_text(h, "/data/elsewhere"), image({"zr-elog"}));
}
