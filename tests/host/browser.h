// A browser without a screen, for tests of the pages that sa-host writes: Debian's chromium, driven through its
// debugging pipe.
#ifndef TESTS_HOST_BROWSER_H
#define TESTS_HOST_BROWSER_H

#include <sys/types.h>

#include <string>

#include "tests/host/support.h"

struct browser {
    pid_t pid = -1;
    int to = -1;    // commands for it, each ended by a NUL
    int from = -1;  // its answers and events, likewise
    std::string received;
    int last_id = 0;
    std::string session;
    temporary_dir profile;
};

// The program's path, or "" when it is not installed.
std::string browser_program();
// Opens a file as a page. Result: whether the browser came up.
bool browser_open(browser *b, const std::string &path);
// The value of an expression of the page's program, as text; "error: ..." when it fails.
std::string browser_value(browser *b, const std::string &expression);
// Waits until an expression is true.
bool browser_wait(browser *b, const std::string &expression, int limit_ms = 60000);
// Moves the mouse to a point, presses its button, moves it on to another and releases it there.
void browser_drag(browser *b, int x, int y, int to_x, int to_y);
void browser_click(browser *b, int x, int y);
// Types into what has the focus.
void browser_type(browser *b, const std::string &text);
// Presses a key without a character, by its name: "Escape", "ArrowDown".
void browser_key(browser *b, const std::string &key);
// Writes what the page shows into a PNG file.
void browser_picture(browser *b, const std::string &path);
void browser_close(browser *b);

#endif
