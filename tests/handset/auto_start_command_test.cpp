// +AUTO_START_SERVICE: answers, the list's image in its file, slots, refusals and a file that cannot be written.
#include <errno.h>

#include "tests/support/collectors.h"

static const char kList[] = "/data/zr-qel-sa/auto-start.lst";
static const char kListed[] = "\r\nAUTO_START_SERVICE: 1\r\n\r\nOK\r\n";
static const char kUnlisted[] = "\r\nAUTO_START_SERVICE: 0\r\n\r\nOK\r\n";

class AutoStartCommand : public CollectorTest {
  protected:
    std::string ask_for(const std::string &name, int action) {
        return command("+AUTO_START_SERVICE=\"" + name + "\"," + std::to_string(action));
    }
    std::string enable(const std::string &name) {
        return ask_for(name, 1);
    }
    std::string disable(const std::string &name) {
        return ask_for(name, 0);
    }
    std::string query(const std::string &name) {
        return ask_for(name, 2);
    }
    std::string list() {
        return desk_file_text(h, kList);
    }
};

// The file's bytes for these slots.
static std::string image(const std::vector<std::string> &names) {
    std::string bytes;
    for (const std::string &name : names) {
        bytes += name + std::string(40 - name.size(), '\0');
    }
    return bytes + std::string(400 - bytes.size(), '\0');
}

TEST_F(AutoStartCommand, EnablesQueriesAndDisables) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(query("zr-auto-test"), kUnlisted);
    EXPECT_EQ(enable("zr-auto-test"), kOk);
    EXPECT_EQ(query("zr-auto-test"), kListed);
    EXPECT_EQ(list(), image({"zr-auto-test"}));
    EXPECT_EQ(desk_owner(h, kList), "0600 0:0") << "what the creation mask leaves";
    EXPECT_EQ(disable("zr-auto-test"), kOk);
    EXPECT_EQ(query("zr-auto-test"), kUnlisted);
    EXPECT_EQ(list(), image({}));
    EXPECT_TRUE(
        in_order(platform_lines(), {"handle_sa_auto_start_service_set()", "auto_start_service_list_update()",
                                    "Enable service \"zr-auto-test\" auto start OK", "auto_start_service_list_update()",
                                    "Disable service \"zr-auto-test\" auto start OK"}));
}

TEST_F(AutoStartCommand, EnablingTwiceStoresOnce) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(enable("zr-elog"), kOk);
    EXPECT_EQ(enable("zr-elog"), kOk);
    EXPECT_EQ(list(), image({"zr-elog"}));
    EXPECT_EQ(count_lines(platform_lines(), "auto_start_service_list_update()"), 1);
}

TEST_F(AutoStartCommand, DisablingWhatIsNotListedLeavesTheFileAlone) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(disable("zr-elog"), kOk);
    EXPECT_FALSE(desk_exists(h, kList));
    EXPECT_EQ(count_lines(platform_lines(), "auto_start_service_list_update()"), 0);
}

TEST_F(AutoStartCommand, ComparesWholeNamesInTheirCase) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(enable("zr-elog"), kOk);
    EXPECT_EQ(query("ZR-ELOG"), kUnlisted);
    EXPECT_EQ(query("zr-elo"), kUnlisted);
    EXPECT_EQ(query("zr-elog2"), kUnlisted);
    EXPECT_EQ(enable("ZR-ELOG"), kOk);
    EXPECT_EQ(list(), image({"zr-elog", "ZR-ELOG"}));
}

TEST_F(AutoStartCommand, FreedSlotIsTakenByTheNext) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const char *name : {"one", "two", "three"}) {
        ASSERT_EQ(enable(name), kOk);
    }
    EXPECT_EQ(list(), image({"one", "two", "three"}));
    EXPECT_EQ(disable("one"), kOk);
    EXPECT_EQ(list(), image({"", "two", "three"}));
    EXPECT_EQ(enable("four"), kOk);
    EXPECT_EQ(list(), image({"four", "two", "three"}));
    EXPECT_EQ(disable("two"), kOk);
    EXPECT_EQ(enable("five"), kOk);
    EXPECT_EQ(list(), image({"four", "five", "three"}));
    EXPECT_EQ(enable("six"), kOk);
    EXPECT_EQ(list(), image({"four", "five", "three", "six"}));
}

TEST_F(AutoStartCommand, EleventhNameIsRefused) {
    ASSERT_NO_FATAL_FAILURE(boot());
    std::vector<std::string> names;
    for (int i = 1; i <= 10; i++) {
        names.push_back("service-" + std::to_string(i));
        ASSERT_EQ(enable(names.back()), kOk);
    }
    EXPECT_EQ(enable("service-11"), kError);
    EXPECT_EQ(list(), image(names));
    EXPECT_EQ(query("service-11"), kUnlisted);
    EXPECT_TRUE(in_order(platform_lines(), {"auto_start_service_list_update()", "no free space for \"service-11\"",
                                            "Enable service \"service-11\" auto start fail"}));
    EXPECT_EQ(rests(reports(), "FUNC-auto_start_service_list_update(), error_code=-117, ").size(), 1u);
    EXPECT_EQ(enable("service-10"), kOk) << "listed already";
    EXPECT_EQ(disable("service-4"), kOk);
    EXPECT_EQ(enable("service-11"), kOk);
    names[3] = "service-11";
    EXPECT_EQ(list(), image(names));
}

// ---- the argument ----

TEST_F(AutoStartCommand, RefusesOtherActions) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const char *action : {"3", "-1", "99999", "", "x", "\"1\""}) {
        EXPECT_EQ(command(std::string("+AUTO_START_SERVICE=\"zr-elog\",") + action), kError) << action;
    }
    EXPECT_FALSE(desk_exists(h, kList));
}

TEST_F(AutoStartCommand, RefusesWhatIsNotANameAndAnAction) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const char *argument :
         {"\"zr-elog\"", "zr-elog,1", "\"\",1", "\"zr-elog\" ,1", "\"zr-elog\";1", "\"zr-elog\"1", ",1", "1", ""}) {
        EXPECT_EQ(command(std::string("+AUTO_START_SERVICE=") + argument), kError) << argument;
    }
    EXPECT_EQ(command("+AUTO_START_SERVICE"), kError);
    EXPECT_EQ(command("+AUTO_START_SERVICE?"), kError) << "no read form";
    EXPECT_FALSE(desk_exists(h, kList));
    EXPECT_EQ(query("zr-elog"), kUnlisted);
}

// A number may have blanks and a sign in front and anything behind; the name is everything between the quotes.
TEST_F(AutoStartCommand, TakesTheBlanksThatANumberTakes) {
    ASSERT_NO_FATAL_FAILURE(boot());
    EXPECT_EQ(command("+AUTO_START_SERVICE = \"a b\", 1"), kOk);
    EXPECT_EQ(command("+AUTO_START_SERVICE=\" c\",+1 and more"), kOk);
    EXPECT_EQ(command("+auto_start_service=\"d,e\",01"), kOk);
    EXPECT_EQ(list(), image({"a b", " c", "d,e"}));
}

TEST_F(AutoStartCommand, NameOf39CharactersIsTheLongest) {
    ASSERT_NO_FATAL_FAILURE(boot());
    const std::string longest = "service_name_of_thirty-nine_characters_";
    ASSERT_EQ(longest.size(), 39u);
    EXPECT_EQ(enable(longest), kOk);
    EXPECT_EQ(list(), image({longest}));
    EXPECT_EQ(enable(longest + "x"), kError);
    EXPECT_EQ(query(longest + "x"), kError);
    EXPECT_EQ(enable(std::string(120, 'n')), kError);
    EXPECT_EQ(list(), image({longest}));
    EXPECT_EQ(ask("AT\r"), kOk);
}

// ---- the file ----

TEST_F(AutoStartCommand, ChangeStaysInMemoryWhenTheFileCannotBeOpened) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(desk_make_dir(h, kList));
    EXPECT_EQ(enable("zr-elog"), kError);
    EXPECT_EQ(query("zr-elog"), kListed);
    EXPECT_TRUE(in_order(platform_lines(), {"auto_start_service_list_update()",
                                            "open file \"/data/zr-qel-sa/auto-start.lst\" fail: 21 - Is a directory",
                                            "Enable service \"zr-elog\" auto start fail"}));
    EXPECT_EQ(count_lines(reports(), "FUNC-auto_start_service_list_update(), error_code=-118, errno=21"), 1);
    EXPECT_EQ(disable("zr-elog"), kError);
    EXPECT_EQ(count_lines(platform_lines(), "Disable service \"zr-elog\" auto start fail"), 1);
    EXPECT_EQ(query("zr-elog"), kUnlisted);
    ASSERT_TRUE(desk_remove(h, kList));
    EXPECT_EQ(enable("zr-auto-test"), kOk);
    EXPECT_EQ(list(), image({"zr-auto-test"}));
}

// Opening a FIFO that has no reader would block the command thread.
TEST_F(AutoStartCommand, ChangeStaysInMemoryWhenTheFileIsAFifoWithoutAReader) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(desk_shell(h, std::string("busybox mkfifo ") + kList).status, 0);
    EXPECT_EQ(enable("zr-elog"), kError);
    EXPECT_EQ(query("zr-elog"), kListed);
    EXPECT_TRUE(
        in_order(platform_lines(), {"auto_start_service_list_update()",
                                    "open file \"/data/zr-qel-sa/auto-start.lst\" fail: 6 - No such device or address",
                                    "Enable service \"zr-elog\" auto start fail"}));
    EXPECT_EQ(count_lines(reports(), "FUNC-auto_start_service_list_update(), error_code=-118, errno=6"), 1);
    ASSERT_TRUE(desk_remove(h, kList));
    EXPECT_EQ(enable("zr-auto-test"), kOk);
    EXPECT_EQ(list(), image({"zr-elog", "zr-auto-test"}));
}

TEST_F(AutoStartCommand, ShortWriteIsLoggedAlone) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_TRUE(desk_fill_data(h, 0)) << desk_error();
    EXPECT_EQ(enable("zr-elog"), kOk);
    EXPECT_TRUE(in_order(platform_lines(), {"auto_start_service_list_update()", "WARNING !",
                                            "write not completed: to write(10) != written(0)",
                                            "Enable service \"zr-elog\" auto start OK"}));
    ASSERT_TRUE(desk_remove(h, "/data/.fill"));
    EXPECT_EQ(enable("zr-auto-test"), kOk);
    EXPECT_EQ(list(), image({"zr-elog", "zr-auto-test"})) << "the file is always written whole";
}

TEST_F(AutoStartCommand, WritesWholeOverALongerFile) {
    desk_options options = quiet_options();
    options.files.push_back({kList, image({"kept"}) + std::string(1000, 'x'), "", 0644, 0, 0});
    ASSERT_NO_FATAL_FAILURE(boot(options));
    EXPECT_EQ(enable("added"), kOk);
    EXPECT_EQ(list(), image({"kept", "added"}));
    EXPECT_EQ(desk_owner(h, kList), "0644 0:0");
}
