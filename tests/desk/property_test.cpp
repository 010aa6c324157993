// Properties: rules, what is kept over a boot, actions, and the programs getprop and setprop.
#include <string.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/desk/fixture.h"

TEST(Property, SetIsAnsweredWithZeroAndVisible) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(property_reply(set.h, "desk.first", "one value"), 0);
    EXPECT_EQ(desk_property(set.h, "desk.first"), "one value");
    EXPECT_EQ(property_reply(set.h, "desk.first", ""), 0);
    EXPECT_EQ(desk_property(set.h, "desk.first"), "");
    std::vector<desk_event> events = desk_events(set.h, "prop");
    EXPECT_EQ(events.back().fields, (std::vector<std::string>{"desk.first", ""}));
}

TEST(Property, NamesAreChecked) {
    handset set;
    BOOTED(set);
    for (const char *name : {"", ".a", "a.", "a..b", "a b", "a/b", "a=b", "\xc3\xa4"}) {
        EXPECT_EQ(property_reply(set.h, name, "x"), 0x10) << name;
    }
    EXPECT_EQ(property_reply(set.h, std::string("a\0b", 3), "x"), 0x10);
    EXPECT_EQ(property_reply(set.h, "Az09.-@:_", "x"), 0);
    EXPECT_EQ(property_reply(set.h, std::string(200, 'n'), "x"), 0) << "a name may be longer than 31 bytes";
}

TEST(Property, ValuesAreChecked) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(property_reply(set.h, "desk.v", std::string(91, 'v')), 0);
    EXPECT_EQ(desk_property(set.h, "desk.v"), std::string(91, 'v'));
    EXPECT_EQ(property_reply(set.h, "desk.v", std::string(92, 'w')), 0x14);
    EXPECT_EQ(property_reply(set.h, "ro.desk.long", std::string(200, 'r')), 0) << "ro.* may be longer";
    for (const char *bad : {"\xff", "\xc3", "\xc0\x80", "\xed\xa0\x80", "\xf5\x80\x80\x80"}) {
        EXPECT_EQ(property_reply(set.h, "desk.v", bad), 0x14);
    }
    EXPECT_EQ(property_reply(set.h, "desk.v", "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80"), 0);
    EXPECT_EQ(desk_property(set.h, "desk.v"), "gr\xc3\xbc\xc3\x9f \xe2\x82\xac \xf0\x9f\x98\x80");
}

TEST(Property, ReadOnlyIsSetOnce) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(property_reply(set.h, "ro.desk.once", "1"), 0);
    EXPECT_EQ(property_reply(set.h, "ro.desk.once", "2"), 0x0B);
    EXPECT_EQ(desk_property(set.h, "ro.desk.once"), "1");
    EXPECT_EQ(desk_events(set.h, "refused").back().fields, (std::vector<std::string>{"ro.desk.once", "2", "0xb", "0"}));
}

TEST(Property, PersistIsSavedBeforeTheReply) {
    handset set;
    BOOTED(set);
    EXPECT_EQ(property_reply(set.h, "persist.desk.kept", "yes"), 0);
    EXPECT_EQ(desk_file_text(set.h, "/data/property/persist.desk.kept"), "yes");
    EXPECT_EQ(desk_owner(set.h, "/data/property/persist.desk.kept"), "0600 0:0");
    EXPECT_EQ(desk_list(set.h, "/data/property"), std::vector<std::string>{"persist.desk.kept"});
}

TEST(Property, OnlyPersistIsKeptOverAReboot) {
    desk_options options = handset::no_agent();
    options.properties = {{"persist.desk.preset", "factory"}, {"desk.preset", "each boot"}};
    handset set(options);
    BOOTED(set);
    EXPECT_EQ(desk_property(set.h, "persist.desk.preset"), "factory");
    ASSERT_EQ(desk_set_property(set.h, "persist.desk.preset", "changed"), 0);
    ASSERT_EQ(desk_set_property(set.h, "desk.other", "gone"), 0);
    ASSERT_TRUE(desk_reboot(set.h, true)) << desk_error();
    EXPECT_EQ(desk_property(set.h, "persist.desk.preset"), "changed");
    EXPECT_EQ(desk_property(set.h, "desk.preset"), "each boot");
    EXPECT_EQ(desk_property(set.h, "desk.other"), "");
    ASSERT_TRUE(desk_reboot(set.h, false)) << desk_error();
    EXPECT_EQ(desk_property(set.h, "persist.desk.preset"), "factory");
}

TEST(Property, FullDataFailsToSaveButSets) {
    handset set;
    BOOTED(set);
    ASSERT_EQ(desk_set_property(set.h, "persist.desk.full", "before"), 0);
    ASSERT_TRUE(desk_fill_data(set.h, 0)) << desk_error();
    EXPECT_EQ(desk_set_property(set.h, "persist.desk.full", "after"), 0);
    EXPECT_EQ(desk_property(set.h, "persist.desk.full"), "after");
    ASSERT_TRUE(desk_reboot(set.h, true)) << desk_error();
    EXPECT_EQ(desk_property(set.h, "persist.desk.full"), "before");
}

TEST(Property, EverySetRunsTheAction) {
    desk_options options = handset::no_agent();
    options.files.push_back(
        rc_file("on property:desk.go=1\n    setprop desk.went yes\n"
                "on property:desk.any=*\n    setprop desk.seen yes\n"));
    handset set(options);
    BOOTED(set);
    ASSERT_EQ(desk_set_property(set.h, "desk.go", "2"), 0);
    EXPECT_EQ(desk_property(set.h, "desk.went"), "");
    for (int round = 0; round < 2; round++) {
        ASSERT_EQ(desk_set_property(set.h, "desk.went", ""), 0);
        ASSERT_EQ(desk_set_property(set.h, "desk.go", "1"), 0);
        EXPECT_EQ(desk_property(set.h, "desk.went"), "yes") << "also when the value stays the same";
    }
    ASSERT_EQ(desk_set_property(set.h, "desk.any", "whatever"), 0);
    EXPECT_EQ(desk_property(set.h, "desk.seen"), "yes");
}

TEST(Property, GetpropPrintsOneOrAll) {
    desk_options options = handset::no_agent();
    options.properties = {{"zz.last", "b"}, {"aa.first", "a"}};
    handset set(options);
    BOOTED(set);
    EXPECT_EQ(desk_shell(set.h, "getprop aa.first").output, "a\n");
    desk_result unset = desk_shell(set.h, "getprop no.such");
    EXPECT_EQ(unset.output, "\n");
    EXPECT_EQ(unset.status, 0);
    EXPECT_EQ(desk_shell(set.h, "getprop no.such other").output, "other\n");
    EXPECT_EQ(WEXITSTATUS(desk_shell(set.h, "getprop a b c").status), 255);
    std::string all = desk_shell(set.h, "getprop").output;
    EXPECT_EQ(all.substr(0, 16), "[aa.first]: [a]\n");
    EXPECT_EQ(all.substr(all.size() - 15), "[zz.last]: [b]\n");
}

TEST(Property, SetpropFailsWhenRefused) {
    handset set;
    BOOTED(set);
    desk_result good = desk_shell(set.h, "setprop desk.a b");
    EXPECT_EQ(good.status, 0);
    EXPECT_EQ(good.output + good.errors, "");
    desk_result bad = desk_shell(set.h, "setprop a..b c");
    EXPECT_EQ(WEXITSTATUS(bad.status), 1);
    EXPECT_EQ(bad.errors, "Failed to set property 'a..b' to 'c'.\nSee dmesg for error reason.\n");
    EXPECT_EQ(WEXITSTATUS(desk_shell(set.h, "setprop lonely").status), 1);
}

TEST(Property, ReadersNeverSeeHalfAValue) {
    handset set;
    BOOTED(set);
    std::string a(91, 'a');
    std::string b(45, 'b');
    ASSERT_EQ(desk_set_property(set.h, "desk.flip", a), 0);
    desk_program writer;
    writer.argv = {"sh", "-c",
                   "i=0; while ((i++ < 300)); do setprop desk.flip " + a + "; setprop desk.flip " + b + "; done"};
    desk_child child;
    ASSERT_TRUE(desk_start(set.h, writer, &child)) << desk_error();
    int changes = 0;
    std::string before;
    while (desk_exists(set.h, "/proc/" + std::to_string(child.pid))) {
        std::string value = desk_property(set.h, "desk.flip");
        ASSERT_TRUE(value == a || value == b) << value;
        changes += value != before;
        before = value;
    }
    EXPECT_EQ(desk_wait(set.h, &child, 10000), 0);
    EXPECT_GT(changes, 1);
}
