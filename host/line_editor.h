#pragma once
// The local line discipline: what the kernel of a terminal does for a program that reads lines.

#include <string>

// A line under construction. One per terminal; used by one thread.
struct line_editor {
    std::string line;  // what has been typed since the last line was sent, at most LINE_MAX_BYTES
};

constexpr size_t LINE_MAX_BYTES = 4095;  // more would not fit into the kernel's own line either

// Takes one typed byte: Backspace (8 or 127) erases a character, Ctrl-W a word, Ctrl-U the line; newline ends the line
// and sends it; Ctrl-D sends it as it is. Appends what is to be sent to `to_child` and, if `is_echoed`, what the person is
// to see to `to_screen`; a line that is too long rings the bell in any case.
// Result: false for Ctrl-D on an empty line, which tells the end of the input and appends nothing.
bool line_editor_type(line_editor *editor, char byte, bool is_echoed, std::string *to_child, std::string *to_screen);

// Sends an unfinished line as it is: its reader now reads by bytes.
void line_editor_release(line_editor *editor, std::string *to_child);
