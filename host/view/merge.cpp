// All sources of a set as one stream. Owns no state.

#include "view/merge.h"

namespace {

constexpr size_t SOURCE_WIDTH = 8;  // the longest name and a blank

// Length of the valid UTF-8 sequence at the start of the bytes, 0 when there is none. C1 control characters are not
// valid here: terminals obey them.
size_t sequence_length(const unsigned char *bytes, size_t len) {
    static const unsigned char lead_limits[] = {0xc2, 0xe0, 0xf0, 0xf5};
    size_t length = 2;
    if (bytes[0] < lead_limits[0] || bytes[0] >= lead_limits[3]) {
        return 0;
    }
    length += bytes[0] >= lead_limits[1] ? 1 : 0;
    length += bytes[0] >= lead_limits[2] ? 1 : 0;
    if (length > len) {
        return 0;
    }
    for (size_t i = 1; i < length; ++i) {
        if ((bytes[i] & 0xc0) != 0x80) {
            return 0;
        }
    }
    bool is_overlong = (bytes[0] == 0xe0 && bytes[1] < 0xa0) || (bytes[0] == 0xf0 && bytes[1] < 0x90);
    bool is_out_of_range = (bytes[0] == 0xed && bytes[1] >= 0xa0) || (bytes[0] == 0xf4 && bytes[1] >= 0x90);
    bool is_control = bytes[0] == 0xc2 && bytes[1] < 0xa0;
    return is_overlong || is_out_of_range || is_control ? 0 : length;
}

bool is_plain(unsigned char byte) {
    return (byte >= 0x20 && byte < 0x7f) || byte == '\t';
}

void append_escaped(unsigned char byte, std::string *out) {
    static const char digits[] = "0123456789abcdef";
    if (byte == '\r') {
        out->append("\\r");
        return;
    }
    out->append("\\x");
    out->push_back(digits[byte >> 4]);
    out->push_back(digits[byte & 15]);
}

// Appends the text with everything that a terminal would obey, or could not show, written as \r or \xNN.
void append_text(const char *text, size_t len, std::string *out) {
    const unsigned char *bytes = reinterpret_cast<const unsigned char *>(text);
    size_t at = 0;
    while (at < len) {
        size_t start = at;
        while (at < len && is_plain(bytes[at])) {
            ++at;
        }
        out->append(text + start, at - start);
        if (at == len) {
            return;
        }
        size_t sequence = sequence_length(bytes + at, len - at);
        if (sequence > 0) {
            out->append(text + at, sequence);
        } else {
            append_escaped(bytes[at], out);
        }
        at += sequence > 0 ? sequence : 1;
    }
}

void write_line(const source_reader &reader, std::string *line, shown_line *shown) {
    const log_entry &entry = reader.entry;
    const char *name = SOURCE_NAMES[reader.source];
    line->clear();
    time_append(entry.us, entry.digits, line);
    line->push_back(' ');
    shown->source_at = line->size();
    line->append(name);
    line->resize(shown->source_at + SOURCE_WIDTH, ' ');
    shown->text_at = line->size();
    append_text(entry.text, entry.len, line);
    shown->source = reader.source;
    shown->severity = entry.severity;
    shown->us = entry.us;
    shown->digits = entry.digits;
    shown->line = line;
}

// The reader whose entry is the earliest, or null. Among equals the first source of the enumeration wins.
source_reader *earliest(source_reader *readers) {
    source_reader *found = nullptr;
    for (int i = 0; i < SOURCE_COUNT; ++i) {
        if (readers[i].has_entry && (found == nullptr || readers[i].entry.us < found->entry.us)) {
            found = &readers[i];
        }
    }
    return found;
}

}  // namespace

merge_result merge_run(const log_set &set, const log_choice &choice, line_taker take, void *context) {
    source_reader readers[SOURCE_COUNT];
    merge_result result;
    for (int i = 0; i < SOURCE_COUNT; ++i) {
        if (!choice.is_left_out[i]) {
            source_open(&readers[i], static_cast<log_source>(i), set);
        }
    }
    std::string line;
    shown_line shown = {};
    bool is_wanted = true;
    for (source_reader *next; is_wanted && (next = earliest(readers)) != nullptr; source_next(next)) {
        if (next->entry.us < choice.since || next->entry.us > choice.until) {
            continue;
        }
        write_line(*next, &line, &shown);
        if (choice.pattern == nullptr || regexec(choice.pattern, line.c_str(), 0, nullptr, 0) == 0) {
            ++result.entries;
            result.has_packets |= next->source == SOURCE_PACKETS;
            result.is_kernel_estimated |= next->source == SOURCE_KERNEL && next->is_estimated;
            is_wanted = take(context, shown);
        }
    }
    for (source_reader &reader : readers) {
        source_close(&reader);
    }
    return result;
}
