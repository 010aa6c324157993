// The logs of a set, whatever they hold: every line that `sa-host view` shows is safe on a terminal, and none is lost.
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

#include <algorithm>
#include <string>

#include "view/merge.h"

namespace {

const char kSet[] = "/tmp/2026_01_02_03_04_05";
const char kSeparator = '\x1c';  // between the files of an input
const char *const kFiles[] = {"log/logcat.log", "log/kmsg.log", "log/kmsg.log.1",
                              "log/sa.log",     "handset.txt",  "getprop.log"};

void write_file(const std::string &path, const std::string &text) {
    FILE *file = fopen(path.c_str(), "w");
    if (file == nullptr || fwrite(text.data(), 1, text.size(), file) != text.size() || fclose(file) != 0) {
        abort();
    }
}

// The lines of a file as a reader counts them: the last one need not end.
uint64_t count_lines(const std::string &text) {
    const uint64_t ends = static_cast<uint64_t>(std::count(text.begin(), text.end(), '\n'));
    return ends + (!text.empty() && text.back() != '\n' ? 1 : 0);
}

bool check_line(void *, const shown_line &shown) {
    for (unsigned char byte : *shown.line) {
        if ((byte < 0x20 && byte != '\t') || byte == 0x7f) {
            abort();
        }
    }
    if (shown.source_at > shown.text_at || shown.text_at > shown.line->size()) {
        abort();
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size >= LINE_SIZE) {
        return 0;  // a line would be cut in pieces
    }
    mkdir(kSet, 0700);
    mkdir((std::string(kSet) + "/log").c_str(), 0700);
    std::string rest(reinterpret_cast<const char *>(data), size);
    uint64_t lines = 0;
    for (const char *name : kFiles) {
        const std::string text = rest.substr(0, rest.find(kSeparator));
        write_file(std::string(kSet) + "/" + name, text);
        rest.erase(0, std::min(text.size() + 1, rest.size()));
        lines += strstr(name, "logcat") != nullptr || strstr(name, "sa.log") != nullptr ? count_lines(text) : 0;
    }
    log_set set;
    if (!log_set_read(kSet, &set)) {
        abort();
    }
    log_choice choice;
    choice.is_left_out[SOURCE_KERNEL] = true;
    if (merge_run(set, choice, check_line, nullptr).entries != lines) {
        abort();
    }
    choice.is_left_out[SOURCE_KERNEL] = false;  // joins lines where a file was overwritten: they are not counted
    merge_run(set, choice, check_line, nullptr);
    int64_t us = 0;
    time_read_bound(std::string(reinterpret_cast<const char *>(data), size), set.saved, true, &us);
    return 0;
}
