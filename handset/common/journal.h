// Lines of the journals below /dev/.desk: fields separated by tabs, one newline at the end. In a field \t \n \r \\ and
// \xNN stand for the tab, the newline, the carriage return, the backslash and other control bytes.
#ifndef HANDSET_COMMON_JOURNAL_H
#define HANDSET_COMMON_JOURNAL_H

#include <string>
#include <vector>

// The parts of `text` between separators: one more than there are separators.
std::vector<std::string> text_split(const std::string &text, char separator);

// Appends `field` with its control bytes escaped.
void journal_append_field(const std::string &field, std::string *line);
// Undoes the escapes of a field.
std::string journal_unescape(const std::string &field);
// The fields of a line without its newline, unescaped.
std::vector<std::string> journal_fields(const std::string &line);

#endif
