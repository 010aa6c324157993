// Datagrams on the log daemon's socket: what becomes an entry, its line in the journal, and what logcat prints of it.
// The input is a row of datagrams, each behind two bytes: its length, and in the highest bit whether the kernel knew
// the sender.
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "handset/logcat/format.h"
#include "handset/logd/journal.h"
#include "handset/logd/records.h"

static std::string batch_of(const uint8_t *data, size_t size) {
    std::string batch;
    for (size_t at = 0; at + 2 <= size;) {
        const unsigned told = data[at] + 256u * data[at + 1];
        at += 2;
        raw_head head = {};
        const size_t longest = sizeof(raw_record) - sizeof(raw_head);
        head.length = static_cast<uint32_t>(std::min({size_t{told & 0x7fff}, size - at, longest}));
        head.has_sender = (told & 0x8000) == 0;
        head.sender = {1, 0, 0};
        batch.append(reinterpret_cast<const char *>(&head), sizeof head);
        batch.append(reinterpret_cast<const char *>(data + at), head.length);
        at += head.length;
    }
    return batch;
}

// One line of nine fields, whatever the tag and the text hold.
static void check_line(const std::string &line) {
    if (line.back() != '\n' || std::count(line.begin(), line.end(), '\n') != 1 ||
        std::count(line.begin(), line.end(), '\t') != 8 || line.find('\0') != std::string::npos) {
        abort();
    }
}

static void check_print(const log_entry &entry) {
    log_text parts;
    const auto *payload = reinterpret_cast<const unsigned char *>(entry.payload.data());
    if (!log_split_text(payload, entry.payload.size(), &parts)) {
        return;
    }
    log_print print;
    print.sec = entry.header.sec;
    print.nsec = entry.header.nsec;
    print.priority = parts.priority;
    print.tag.assign(parts.tag, parts.tag_length);
    print.text.assign(parts.text, parts.text_length);
    log_format format;
    format.is_printable = true;
    if (log_format_entry(format, print).back() != '\n' || log_printable(print.text).find('\n') != std::string::npos) {
        abort();
    }
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::vector<log_entry> entries = records_accept(batch_of(data, size));
    store_set_limit(16384);
    const uint64_t before = store_newest();
    store_add(&entries);
    for (const log_entry &entry : entries) {
        check_line(journal_line(entry));
        check_print(entry);
    }
    log_query all;
    all.buffers = (1u << kLogBufferCount) - 1;
    all.all_users = true;
    log_entry found;
    if (!entries.empty() && (!store_next(all, store_newest(), &found) || found.payload != entries.back().payload)) {
        abort();
    }
    return store_newest() == before + entries.size() ? 0 : (abort(), 0);
}
