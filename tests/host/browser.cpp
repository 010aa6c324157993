// A browser without a screen. All state is the caller's.
#include "tests/host/browser.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>

namespace {

constexpr int kAnswerMs = 60000;

int64_t now_ms() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

std::string json_text(const std::string &text) {
    std::string out = "\"";
    for (char c : text) {
        char escaped[8];
        snprintf(escaped, sizeof(escaped), "\\u%04x", static_cast<unsigned char>(c));
        out += c == '"' || c == '\\' || static_cast<unsigned char>(c) < 0x20 ? escaped : std::string(1, c);
    }
    return out + "\"";
}

// A character of the Basic Multilingual Plane.
void append_utf8(unsigned code, std::string *out) {
    if (code < 0x80) {
        out->push_back(static_cast<char>(code));
        return;
    }
    if (code >= 0x800) {
        out->push_back(static_cast<char>(0xe0 | code >> 12));
    }
    out->push_back(static_cast<char>(code >= 0x800 ? 0x80 | (code >> 6 & 0x3f) : 0xc0 | code >> 6));
    out->push_back(static_cast<char>(0x80 | (code & 0x3f)));
}

// The text behind `"name":"` in a message, unescaped as far as tests need it.
std::string text_value(const std::string &message, const std::string &name) {
    size_t at = message.find("\"" + name + "\":\"");
    std::string out;
    if (at == std::string::npos) {
        return out;
    }
    for (at += name.size() + 4; at < message.size() && message[at] != '"'; ++at) {
        if (message[at] == '\\' && message[at + 1] == 'u') {
            append_utf8(static_cast<unsigned>(strtoul(message.substr(at + 2, 4).c_str(), nullptr, 16)), &out);
            at += 5;
        } else if (message[at] == '\\') {
            ++at;
            out += message[at] == 'n' ? '\n' : message[at] == 't' ? '\t' : message[at];
        } else {
            out += message[at];
        }
    }
    return out;
}

// The next message of the browser, "" at the limit or the end.
std::string next_message(browser *b, int64_t deadline) {
    size_t end;
    while ((end = b->received.find('\0')) == std::string::npos) {
        struct pollfd set = {b->from, POLLIN, 0};
        char buf[65536];
        if (poll(&set, 1, static_cast<int>(std::max<int64_t>(deadline - now_ms(), 0))) <= 0) {
            return "";
        }
        const ssize_t got = read(b->from, buf, sizeof(buf));
        if (got <= 0) {
            return "";
        }
        b->received.append(buf, static_cast<size_t>(got));
    }
    const std::string message = b->received.substr(0, end);
    b->received.erase(0, end + 1);
    return message;
}

// Sends a command and returns its answer; events in between are passed over.
std::string command(browser *b, const std::string &method, const std::string &parameters) {
    const std::string id = "\"id\":" + std::to_string(++b->last_id);
    std::string text = "{" + id + ",\"method\":\"" + method + "\",\"params\":{" + parameters + "}";
    text += b->session.empty() ? "}" : ",\"sessionId\":\"" + b->session + "\"}";
    text.push_back('\0');
    for (size_t done = 0; done < text.size();) {
        const ssize_t put = write(b->to, text.data() + done, text.size() - done);
        if (put <= 0) {
            return "";
        }
        done += static_cast<size_t>(put);
    }
    const int64_t deadline = now_ms() + kAnswerMs;
    std::string message;
    do {
        message = next_message(b, deadline);
    } while (!message.empty() && message.compare(0, id.size() + 2, "{" + id + ",") != 0);
    return message;
}

void start(browser *b, const std::string &program) {
    int to[2], from[2];
    ASSERT_EQ(pipe2(to, O_CLOEXEC) | pipe2(from, O_CLOEXEC), 0);
    const std::string profile = "--user-data-dir=" + b->profile.path;
    b->pid = fork();
    if (b->pid == 0) {
        setpgid(0, 0);
        // The pipe is on descriptors 3 and 4; out of their way first.
        const int in = fcntl(to[0], F_DUPFD, 10), out = fcntl(from[1], F_DUPFD, 10);
        dup2(in, 3);
        dup2(out, 4);
        const int null = open("/dev/null", O_RDWR);
        dup2(null, 0);
        dup2(null, 1);
        dup2(null, 2);
        execl(program.c_str(), program.c_str(), "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
              "--no-first-run", "--disable-background-networking", "--disable-component-update", "--disable-sync",
              "--disable-dev-shm-usage", "--window-size=1200,800", "--remote-debugging-pipe", profile.c_str(),
              "about:blank", nullptr);
        _exit(127);
    }
    close(to[0]);
    close(from[1]);
    b->to = to[1];
    b->from = from[0];
}

void mouse(browser *b, const char *type, int x, int y) {
    command(b, "Input.dispatchMouseEvent",
            "\"type\":\"" + std::string(type) + "\",\"button\":\"left\",\"clickCount\":1,\"x\":" + std::to_string(x) +
                ",\"y\":" + std::to_string(y));
}

}  // namespace

std::string browser_program() {
    for (const char *path : {"/usr/bin/chromium", "/usr/bin/chromium-browser"}) {
        if (access(path, X_OK) == 0) {
            return path;
        }
    }
    return "";
}

bool browser_open(browser *b, const std::string &path) {
    signal(SIGPIPE, SIG_IGN);
    start(b, browser_program());
    const std::string target = text_value(command(b, "Target.createTarget", "\"url\":\"about:blank\""), "targetId");
    b->session = text_value(command(b, "Target.attachToTarget", "\"flatten\":true,\"targetId\":\"" + target + "\""),
                            "sessionId");
    return !b->session.empty() && !command(b, "Page.navigate", "\"url\":" + json_text("file://" + path)).empty();
}

std::string browser_value(browser *b, const std::string &expression) {
    const std::string answer = command(b, "Runtime.evaluate",
                                       "\"awaitPromise\":true,\"returnByValue\":true,\"expression\":" +
                                           json_text("(async()=>String(await(" + expression + ")))()"));
    return answer.find("\"exceptionDetails\"") == std::string::npos ? text_value(answer, "value")
                                                                    : "error: " + text_value(answer, "description");
}

bool browser_wait(browser *b, const std::string &expression, int limit_ms) {
    return desk_until([&] { return browser_value(b, expression) == "true"; }, limit_ms);
}

void browser_drag(browser *b, int x, int y, int to_x, int to_y) {
    mouse(b, "mouseMoved", x, y);
    mouse(b, "mousePressed", x, y);
    if (to_x != x || to_y != y) {
        mouse(b, "mouseMoved", to_x, to_y);
    }
    mouse(b, "mouseReleased", to_x, to_y);
}

void browser_click(browser *b, int x, int y) {
    browser_drag(b, x, y, x, y);
}

void browser_type(browser *b, const std::string &text) {
    command(b, "Input.insertText", "\"text\":" + json_text(text));
}

void browser_key(browser *b, const std::string &key) {
    command(b, "Input.dispatchKeyEvent", "\"type\":\"rawKeyDown\",\"key\":\"" + key + "\"");
    command(b, "Input.dispatchKeyEvent", "\"type\":\"keyUp\",\"key\":\"" + key + "\"");
}

void browser_picture(browser *b, const std::string &path) {
    const std::string data = text_value(command(b, "Page.captureScreenshot", ""), "data");
    FILE *decoder = popen(("base64 -d >'" + path + "'").c_str(), "w");
    ASSERT_NE(decoder, nullptr);
    fwrite(data.data(), 1, data.size(), decoder);
    pclose(decoder);
}

void browser_close(browser *b) {
    if (b->pid > 0) {
        // It writes into its profile until its last process has gone.
        kill(-b->pid, SIGKILL);
        waitpid(b->pid, nullptr, 0);
        EXPECT_TRUE(desk_until([b] { return kill(-b->pid, 0) != 0; }));
    }
    for (int fd : {b->to, b->from}) {
        if (fd >= 0) {
            close(fd);
        }
    }
    b->pid = b->to = b->from = -1;
}
