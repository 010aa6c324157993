// Lines on standard output. All state is the caller's, but for the dispositions of SIGPIPE and SIGINT, which are changed
// while the pager runs.

#include "view/text_output.h"

#include <signal.h>
#include <unistd.h>
#include <cstdlib>
#include <cstring>

#include "message.h"
#include "view/program.h"

namespace {

constexpr size_t FLUSH_SIZE = 65536;

const char PLAIN[] = "\033[0m";
const char DIM[] = "\033[2m";
const char *const SEVERITY_COLOURS[] = {"", "\033[33m", "\033[31m"};
const char *const SOURCE_COLOURS[SOURCE_COUNT] = {"\033[36m", "\033[32m", "\033[34m",
                                                  "\033[35m", "\033[1m",  "\033[33m"};

struct sigaction m_pipe_before;
struct sigaction m_interrupt_before;

// The program that PAGER names, run by the shell, or less. Result: its process id, or -1 for none.
pid_t start_pager(int in_fd) {
    const char *chosen = getenv("PAGER");
    if (chosen == nullptr) {
        return program_start({"less", "-FR"}, in_fd, -1, false);
    }
    if (*chosen == '\0' || strcmp(chosen, "cat") == 0) {
        return -1;
    }
    return program_start({"/bin/sh", "-c", chosen}, in_fd, -1, false);
}

// Result: whether there is still a reader.
bool flush(text_output *out) {
    if (out->pager_fd < 0) {
        print_text(out->buf);
    } else if (!out->is_pager_gone) {
        out->is_pager_gone = !write_whole(out->pager_fd, out->buf.data(), out->buf.size());
    }
    out->buf.clear();
    return !out->is_pager_gone && print_is_good();
}

void append_coloured(const shown_line &shown, std::string *buf) {
    const std::string &line = *shown.line;
    buf->append(DIM);
    buf->append(line, 0, shown.source_at);
    buf->append(PLAIN);
    buf->append(SOURCE_COLOURS[shown.source]);
    buf->append(line, shown.source_at, shown.text_at - shown.source_at);
    buf->append(PLAIN);
    buf->append(SEVERITY_COLOURS[shown.severity]);
    buf->append(line, shown.text_at, std::string::npos);
    buf->append(shown.severity != SEVERITY_PLAIN ? PLAIN : "");
}

}  // namespace

void text_output_open(text_output *out) {
    if (isatty(STDOUT_FILENO) == 0) {
        return;
    }
    const char *terminal = getenv("TERM");
    out->is_coloured = getenv("NO_COLOR") == nullptr && terminal != nullptr && strcmp(terminal, "dumb") != 0;
    int read_fd = -1;
    if (!program_pipe(&read_fd, &out->pager_fd)) {
        return;
    }
    out->pager = start_pager(read_fd);
    close(read_fd);
    if (out->pager < 0) {
        close(out->pager_fd);
        out->pager_fd = -1;
        return;
    }
    struct sigaction ignore = {};
    ignore.sa_handler = SIG_IGN;
    sigaction(SIGPIPE, &ignore, &m_pipe_before);
    sigaction(SIGINT, &ignore, &m_interrupt_before);  // Ctrl-C belongs to the pager
}

bool text_output_take(void *context, const shown_line &shown) {
    text_output *out = static_cast<text_output *>(context);
    if (out->is_coloured) {
        append_coloured(shown, &out->buf);
    } else {
        out->buf.append(*shown.line);
    }
    out->buf.push_back('\n');
    return out->buf.size() < FLUSH_SIZE || flush(out);
}

void text_output_close(text_output *out) {
    flush(out);
    if (out->pager < 0) {
        return;
    }
    close(out->pager_fd);
    program_wait(out->pager);
    sigaction(SIGPIPE, &m_pipe_before, nullptr);
    sigaction(SIGINT, &m_interrupt_before, nullptr);
}
