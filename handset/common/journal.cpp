// Writing and reading journal lines. No state.
#include "handset/common/journal.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

static const char kEscaped[] = "\t\n\r\\";
static const char kLetters[] = "tnr\\";

std::vector<std::string> text_split(const std::string &text, char separator) {
    std::vector<std::string> parts;
    size_t start = 0;
    for (size_t end; (end = text.find(separator, start)) != std::string::npos; start = end + 1) {
        parts.push_back(text.substr(start, end - start));
    }
    parts.push_back(text.substr(start));
    return parts;
}

void journal_append_field(const std::string &field, std::string *line) {
    for (const char c : field) {
        const auto byte = static_cast<unsigned char>(c);
        const char *found = c != '\0' ? strchr(kEscaped, c) : nullptr;
        if (found != nullptr) {
            *line += '\\';
            *line += kLetters[found - kEscaped];
        } else if (byte < ' ' || byte == 0x7f) {
            char code[8];
            snprintf(code, sizeof(code), "\\x%02X", byte);
            *line += code;
        } else {
            *line += c;
        }
    }
}

std::string journal_unescape(const std::string &field) {
    std::string plain;
    for (size_t i = 0; i < field.size(); i++) {
        if (field[i] != '\\' || i + 1 == field.size()) {
            plain += field[i];
            continue;
        }
        const char c = field[++i];
        const char *found = strchr(kLetters, c);
        if (c == 'x' && i + 2 < field.size()) {
            plain += static_cast<char>(strtol(field.substr(i + 1, 2).c_str(), nullptr, 16));
            i += 2;
        } else {
            plain += found != nullptr && c != '\0' ? kEscaped[found - kLetters] : c;
        }
    }
    return plain;
}

std::vector<std::string> journal_fields(const std::string &line) {
    std::vector<std::string> fields = text_split(line, '\t');
    for (std::string &field : fields) {
        field = journal_unescape(field);
    }
    return fields;
}
