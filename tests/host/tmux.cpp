// The remote shell in a real terminal program: what a person sees on a screen of tmux. No state.
#include <stdlib.h>

#include "tests/host/support.h"

void HostTest::try_shell_in_tmux() {
    if (system("tmux -V >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "tmux is not installed";
    }
    temporary_dir dir;
    const std::string tmux = "tmux -f /dev/null -S " + dir.path + "/socket ";
    auto screen = [&] {
        FILE *pane = popen((tmux + "capture-pane -p").c_str(), "r");
        std::string text(20000, '\0');
        text.resize(pane != nullptr ? fread(&text[0], 1, text.size(), pane) : 0);
        pclose(pane);
        return text;  // without the blanks that end a line
    };
    auto shows = [&](const std::string &text) {
        return desk_until([&] { return screen().find(text) != std::string::npos; }, 20000);
    };
    std::string program = SA_HOST;
    for (const std::string &word : inside({"shell"})) {
        program += " " + word;
    }
    ASSERT_EQ(system((tmux + "new-session -d -x 90 -y 30 'PS1=local: exec /bin/sh'").c_str()), 0);
    ASSERT_EQ(system((tmux + "send-keys '" + program + "' Enter").c_str()), 0);
    EXPECT_TRUE(shows("\n#")) << screen();
    ASSERT_EQ(system((tmux + "send-keys 'seq 3; busybox stty size' Enter").c_str()), 0);
    EXPECT_TRUE(shows("\n1\n2\n3\n30 90\n#")) << screen();
    auto keys = [&](const std::string &names) { return system((tmux + "send-keys " + names).c_str()) == 0; };
    ASSERT_TRUE(keys("'cat > /data/typed; echo over' Enter"));
    ASSERT_TRUE(wait_runs({"cat"}));
    ASSERT_TRUE(keys("'one two thref' BSpace e C-w three Enter"));
    EXPECT_TRUE(shows("\none two three\n")) << screen();
    EXPECT_TRUE(desk_until([&] { return desk_file_text(h, "/data/typed") == "one two three\n"; }));
    ASSERT_TRUE(keys("C-d"));
    EXPECT_TRUE(shows("\nover\n#")) << screen();
    ASSERT_TRUE(keys("'TERM=vt100 busybox vi /data/typed' Enter"));
    EXPECT_TRUE(shows("one two three\n~\n~\n")) << screen();
    ASSERT_TRUE(keys("dw :x Enter"));
    EXPECT_TRUE(desk_until([&] { return desk_file_text(h, "/data/typed") == "two three\n"; }));
    EXPECT_TRUE(shows("busybox vi /data/typed\n#")) << screen();
    ASSERT_EQ(system((tmux + "send-keys C-d").c_str()), 0);
    EXPECT_TRUE(shows("# ^D\nlocal:")) << screen();
    ASSERT_EQ(system((tmux + "send-keys 'echo back' Enter").c_str()), 0);
    EXPECT_TRUE(shows("\nback\nlocal:")) << screen();
    EXPECT_EQ(system((tmux + "kill-server").c_str()), 0);
}
