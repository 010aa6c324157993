// Lines as one self-contained page. All state is the caller's.

#include "view/html_output.h"

#include <sys/mman.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <cstring>

#include "message.h"
#include "view/program.h"

namespace {

constexpr size_t BLOCK_SIZE = 2 << 20;
constexpr int SHOW_STEP_MS = 200;
constexpr int MILLISECONDS_ONLY = 32;

// The page around the blocks, split where they go.
const char *const PAGE =
#include "view/page.inc"
    ;
const char BLOCKS_MARK[] = "<!--BLOCKS-->";

void append_little_endian(uint64_t value, int bytes, std::string *out) {
    for (int i = 0; i < bytes; ++i) {
        out->push_back(static_cast<char>(value >> (8 * i) & 0xff));
    }
}

void append_double(double value, std::string *out) {
    uint64_t bits = 0;
    static_assert(sizeof(bits) == sizeof(value), "the page reads doubles of eight bytes");
    memcpy(&bits, &value, sizeof(bits));
    append_little_endian(bits, 8, out);
}

void append_base64(const std::string &bytes, std::string *out) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    out->reserve(out->size() + bytes.size() / 3 * 4 + 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        size_t have = std::min<size_t>(bytes.size() - i, 3);
        unsigned group = 0;
        for (size_t k = 0; k < 3; ++k) {
            group = group << 8 | (k < have ? static_cast<unsigned char>(bytes[i + k]) : 0U);
        }
        for (size_t k = 0; k < 4; ++k) {
            out->push_back(k <= have ? digits[group >> (18 - 6 * k) & 63] : '=');
        }
    }
}

// A JSON string that may stand in a script element.
std::string quoted(const std::string &text) {
    std::string out;
    for (char c : json_quoted(text)) {
        out += c == '<' ? "\\u003c" : std::string(1, c);
    }
    return out;
}

bool fail(html_output *out, const char *what) {
    if (!out->is_failed) {
        say("%s cannot be written: %s (%s).", out->path.c_str(), strerror(errno), what);
    }
    out->is_failed = true;
    return false;
}

bool put(html_output *out, const std::string &text) {
    if (!out->is_failed && fwrite(text.data(), 1, text.size(), out->file) != text.size()) {
        return fail(out, "writing");
    }
    return !out->is_failed;
}

// ---- Blocks

// Runs gzip over what `in_fd` holds.
bool collect_compressed(int in_fd, std::string *packed) {
    int read_fd = -1;
    int write_fd = -1;
    if (!program_pipe(&read_fd, &write_fd)) {
        return false;
    }
    pid_t pid = program_start({"gzip", "-c", "-n"}, in_fd, write_fd, false);
    int error = errno;
    close(write_fd);
    char buf[65536];
    ssize_t got = 0;
    while (pid > 0 && ((got = read(read_fd, buf, sizeof(buf))) > 0 || (got < 0 && errno == EINTR))) {
        packed->append(buf, static_cast<size_t>(std::max<ssize_t>(got, 0)));
    }
    close(read_fd);
    errno = error;
    return pid > 0 && program_wait(pid) == 0;
}

bool compress(html_output *out, std::string *packed) {
    int fd = memfd_create("sa-host-block", MFD_CLOEXEC);
    bool is_done = fd >= 0;
    for (const std::string *part : {&out->times, &out->ends, &out->kinds, &out->texts}) {
        is_done = is_done && write_whole(fd, part->data(), part->size());
    }
    is_done = is_done && lseek(fd, 0, SEEK_SET) == 0 && collect_compressed(fd, packed);
    if (fd >= 0) {
        close(fd);
    }
    return is_done || fail(out, "gzip");
}

bool end_block(html_output *out) {
    std::string packed;
    if (out->block.lines == 0) {
        return true;
    }
    if (!compress(out, &packed)) {
        return false;
    }
    std::string element = "<script type=\"text/plain\" class=\"block\">";
    append_base64(packed, &element);
    out->blocks.push_back(out->block);
    out->block = html_block();
    for (std::string *part : {&out->times, &out->ends, &out->kinds, &out->texts}) {
        part->clear();
    }
    return put(out, element + "</script>\n");
}

// ---- Density

// Doubles the width of the bins, and so the time that they cover.
void widen(html_output *out) {
    out->width *= 2;
    for (auto &bins : out->density) {
        for (size_t i = 0; i < DENSITY_BINS; ++i) {
            bins[i] = i < DENSITY_BINS / 2 ? bins[2 * i] + bins[2 * i + 1] : 0;
        }
    }
}

// A line earlier than the first one counts for the first bin.
void count_line(html_output *out, const shown_line &shown) {
    if (out->blocks.empty() && out->block.lines == 0) {
        out->origin = shown.us;
    }
    int64_t distance = std::max<int64_t>(shown.us - out->origin, 0);
    while (distance / out->width >= static_cast<int64_t>(DENSITY_BINS)) {
        widen(out);
    }
    ++out->density[shown.source][distance / out->width];
}

// ---- The page's data

std::string density_text(const html_output &out) {
    std::string text;
    for (const auto &bins : out.density) {
        text += text.empty() ? "[" : ",[";
        for (size_t i = 0; i < DENSITY_BINS; ++i) {
            text += (i > 0 ? "," : "") + std::to_string(bins[i]);
        }
        text += "]";
    }
    return text;
}

std::string index_text(const html_output &out, const std::string &name, const std::vector<std::string> &notes) {
    std::string text = "{\"name\":" + quoted(name) + ",\"notes\":[";
    for (size_t i = 0; i < notes.size(); ++i) {
        text += (i > 0 ? "," : "") + quoted(notes[i]);
    }
    text += "],\"sources\":[";
    for (int i = 0; i < SOURCE_COUNT; ++i) {
        text += (i > 0 ? "," : "") + quoted(SOURCE_NAMES[i]);
    }
    text += "],\"origin\":" + std::to_string(out.origin) + ",\"width\":" + std::to_string(out.width);
    text += ",\"density\":[" + density_text(out) + "],\"blocks\":[";
    for (size_t i = 0; i < out.blocks.size(); ++i) {
        const html_block &block = out.blocks[i];
        text += text_of("%s[%llu,%lld,%lld,%lld]", i > 0 ? "," : "", static_cast<unsigned long long>(block.lines),
                        static_cast<long long>(block.first), static_cast<long long>(block.least),
                        static_cast<long long>(block.most));
    }
    return text + "]}";
}

}  // namespace

bool html_output_open(html_output *out, const std::string &path) {
    out->path = path;
    out->file = fopen(path.c_str(), "we");
    if (out->file == nullptr) {
        return fail(out, "opening");
    }
    return put(out, std::string(PAGE, strstr(PAGE, BLOCKS_MARK)));
}

bool html_output_take(void *context, const shown_line &shown) {
    html_output *out = static_cast<html_output *>(context);
    html_block *block = &out->block;
    count_line(out, shown);
    block->first = block->lines == 0 ? shown.us : block->first;
    block->least = block->lines == 0 ? shown.us : std::min(block->least, shown.us);
    block->most = block->lines == 0 ? shown.us : std::max(block->most, shown.us);
    ++block->lines;
    append_double(static_cast<double>(shown.us), &out->times);
    out->texts.append(*shown.line, shown.text_at, std::string::npos);
    out->texts.push_back('\n');
    append_little_endian(out->texts.size(), 4, &out->ends);
    int kind = shown.source | shown.severity << 3 | (shown.digits <= 3 ? MILLISECONDS_ONLY : 0);
    out->kinds.push_back(static_cast<char>(kind));
    if (now_ms() - out->shown_ms >= SHOW_STEP_MS) {
        out->shown_ms = now_ms();
        std::string last;
        time_append(shown.us, 0, &last);
        progress_show(out->path + ": written up to " + last);
    }
    return out->texts.size() < BLOCK_SIZE || end_block(out);
}

int html_output_close(html_output *out, const std::string &name, const std::vector<std::string> &notes) {
    progress_clear();
    const char *rest = strstr(PAGE, BLOCKS_MARK) + sizeof(BLOCKS_MARK) - 1;
    bool is_done = end_block(out) && put(out, "<script type=\"application/json\" id=\"index\">") &&
                   put(out, index_text(*out, name, notes)) && put(out, "</script>\n") && put(out, rest);
    if (fclose(out->file) != 0 && is_done) {
        is_done = fail(out, "closing");
    }
    out->file = nullptr;
    return is_done ? HOST_OK : HOST_ERROR;
}
