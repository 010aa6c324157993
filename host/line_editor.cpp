// The local line discipline. Owns no state: the line belongs to the caller. Echoes as the kernel does, except that a tab
// is shown as blanks up to a multiple of eight columns of the line, since nobody here knows the column that it begins in.

#include "line_editor.h"

namespace {

constexpr char BYTE_END = 4;
constexpr char BYTE_BELL = 7;
constexpr char BYTE_BACKSPACE = 8;
constexpr char BYTE_KILL = 21;
constexpr char BYTE_WORD_ERASE = 23;
constexpr char BYTE_DELETE = 127;
constexpr size_t TAB_WIDTH = 8;

bool is_control(char byte) {
    return static_cast<unsigned char>(byte) < 0x20 || byte == BYTE_DELETE;
}

// Whether the byte belongs to the UTF-8 character that an earlier byte has begun.
bool is_continuation(char byte) {
    return (static_cast<unsigned char>(byte) & 0xc0) == 0x80;
}

bool is_blank(char byte) {
    return byte == ' ' || byte == '\t';
}

// What a byte shows when the line before it takes `column` columns.
std::string shown(char byte, size_t column) {
    if (byte == '\t') {
        return std::string(TAB_WIDTH - column % TAB_WIDTH, ' ');
    }
    if (is_control(byte)) {
        return {'^', static_cast<char>(byte ^ 0x40)};
    }
    return std::string(1, byte);
}

// Columns that the line takes. A character of UTF-8 takes one.
size_t width(const std::string &line) {
    size_t columns = 0;
    for (char byte : line) {
        columns += is_continuation(byte) ? 0 : shown(byte, columns).size();
    }
    return columns;
}

// Cuts the line to `size` bytes, on the screen as well.
void cut(line_editor *editor, size_t size, bool is_echoed, std::string *to_screen) {
    size_t before = width(editor->line);
    editor->line.resize(size);
    for (size_t columns = is_echoed ? width(editor->line) : before; columns < before; ++columns) {
        *to_screen += "\b \b";
    }
}

size_t size_without_character(const std::string &line) {
    size_t size = line.size();
    while (size > 1 && is_continuation(line[size - 1])) {
        --size;
    }
    return size > 0 ? size - 1 : 0;
}

size_t size_without_word(const std::string &line) {
    size_t size = line.size();
    while (size > 0 && is_blank(line[size - 1])) {
        --size;
    }
    while (size > 0 && !is_blank(line[size - 1])) {
        --size;
    }
    return size;
}

void insert(line_editor *editor, char byte, bool is_echoed, std::string *to_screen) {
    if (editor->line.size() >= LINE_MAX_BYTES) {
        *to_screen += BYTE_BELL;
        return;
    }
    if (is_echoed) {
        *to_screen += shown(byte, width(editor->line));
    }
    editor->line += byte;
}

}  // namespace

bool line_editor_type(line_editor *editor, char byte, bool is_echoed, std::string *to_child, std::string *to_screen) {
    switch (byte) {
        case BYTE_BACKSPACE:
        case BYTE_DELETE: cut(editor, size_without_character(editor->line), is_echoed, to_screen); return true;
        case BYTE_WORD_ERASE: cut(editor, size_without_word(editor->line), is_echoed, to_screen); return true;
        case BYTE_KILL: cut(editor, 0, is_echoed, to_screen); return true;
        case BYTE_END:
            if (editor->line.empty()) {
                return false;
            }
            line_editor_release(editor, to_child);
            return true;
        case '\n':
            line_editor_release(editor, to_child);
            *to_child += '\n';
            *to_screen += is_echoed ? "\n" : "";  // the person's terminal still processes output
            return true;
        default: insert(editor, byte, is_echoed, to_screen); return true;
    }
}

void line_editor_release(line_editor *editor, std::string *to_child) {
    *to_child += editor->line;
    editor->line.clear();
}
