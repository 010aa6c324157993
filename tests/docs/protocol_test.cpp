// docs/protocol.md, executed: every request of its tables, every byte of its examples.
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <regex>
#include <set>

#include "tests/docs/pages.h"
#include "tests/support/agent.h"

static const char kPage[] = "docs/protocol.md";

// One line of an example: who writes, which bytes, and whether more may follow.
struct step {
    bool is_host;
    bool is_open;       // "..." behind the bytes
    std::string bytes;  // of the line
    std::string note;   // the same bytes as text, when the line shows them
};

static bool to_step(const std::string &line, step *out) {
    static const std::regex form("([<>]) ((?:[0-9a-f]{2} ?)+)(\\.\\.\\.)?(?: +(.*))?");
    std::smatch match;
    if (!std::regex_match(line, match, form)) {
        return false;
    }
    *out = {match[1] == ">", match[3].matched, "", match[4]};
    const std::string digits = match[2];
    for (size_t i = 0; i + 1 < digits.size(); i += 3) {
        out->bytes += static_cast<char>(std::stoi(digits.substr(i, 2), nullptr, 16));
    }
    return true;
}

static page_lines example(const std::string &heading, size_t number) {
    std::vector<page_lines> found;
    const page_lines lines = page(kPage);
    for (const page_lines &block : blocks_below(lines, heading)) {
        found.push_back(block);
    }
    EXPECT_GT(found.size(), number);
    return found.size() > number ? found[number] : page_lines();
}

class Protocol : public AgentTest {
  protected:
    // Reads until this many bytes have come, or until nothing more comes in time.
    static std::string read_bytes(int fd, size_t count) {
        std::string bytes;
        struct pollfd ready = {fd, POLLIN, 0};
        char buf[256];
        while (bytes.size() < count && poll(&ready, 1, 10000) == 1) {
            const ssize_t got = read(fd, buf, sizeof(buf));
            if (got <= 0) {
                break;
            }
            bytes.append(buf, static_cast<size_t>(got));
        }
        return bytes;
    }
};

TEST_F(Protocol, CommandExampleIsTrueToTheByte) {
    ASSERT_NO_FATAL_FAILURE(boot());
    ASSERT_EQ(desk_service_start(h, "zr-elog"), 0);
    ASSERT_TRUE(desk_until([&] { return !desk_pids(h, "zr-elog").empty(); }));
    std::vector<size_t> sizes;
    std::string request;
    for (const std::string &line : example("Example", 0)) {
        step now;
        ASSERT_TRUE(to_step(line, &now)) << line;
        sizes.push_back(now.bytes.size());
        if (now.is_host) {
            request = now.bytes;
        } else {
            EXPECT_EQ(ask(request), now.bytes);
        }
    }
    ASSERT_EQ(sizes.size(), 2u);
    const page_lines lines = page(kPage);
    const std::string told =
        "The host writes " + std::to_string(sizes[0]) + " bytes and reads " + std::to_string(sizes[1]) + ":";
    EXPECT_EQ(std::count(lines.begin(), lines.end(), told), 1) << told;
}

// The number of the slave may differ from the page's; everything else may not.
TEST_F(Protocol, RemoteShellExampleIsTrueToTheByte) {
    ASSERT_NO_FATAL_FAILURE(boot());
    int fd = desk_open_tty(h, "/dev/ttysa1");
    ASSERT_GE(fd, 0);
    const int listener = fd;
    std::string slave;
    int steps = 0;
    for (const std::string &line : example("Example", 1)) {
        step now;
        if (line.find("(open ") != std::string::npos) {
            fd = desk_open_tty(h, slave);
            ASSERT_GE(fd, 0) << slave;
            continue;
        }
        ASSERT_TRUE(to_step(line, &now)) << line;
        const std::string shown = now.note.substr(0, std::min(now.bytes.size(), now.note.size()));
        EXPECT_EQ(now.bytes, shown) << "the text beside the bytes";
        steps++;
        if (now.is_host) {
            ASSERT_EQ(write(fd, now.bytes.data(), now.bytes.size()), static_cast<ssize_t>(now.bytes.size()));
        } else if (slave.empty()) {
            slave = read_bytes(fd, now.bytes.size());
            EXPECT_TRUE(std::regex_match(slave, std::regex("/dev/pts/[0-9]+"))) << slave;
        } else {
            const std::string got = read_bytes(fd, now.bytes.size());
            EXPECT_EQ(got.substr(0, now.is_open ? now.bytes.size() : got.size()), now.bytes);
        }
    }
    EXPECT_EQ(steps, 4);
    close(fd);
    close(listener);
}

// ---- tables ---------------------------------------------------------------------------------------------------------

TEST_F(Protocol, AnswersAreTheTablesBytes) {
    ASSERT_NO_FATAL_FAILURE(boot());
    std::vector<page_lines> rows = table_below(page(kPage), "Answers");
    ASSERT_EQ(rows.size(), 3u);
    EXPECT_EQ(ask("AT\r"), unescaped(in_backticks(rows[0][1])[0]));
    EXPECT_EQ(command("+NOSUCH"), unescaped(in_backticks(rows[1][1])[0]));
    const std::string value = unescaped(in_backticks(rows[2][1])[0]);
    EXPECT_EQ(command("+KERNEL_LOG?"), std::regex_replace(value, std::regex("NAME: value"), "KERNEL_LOG: 0"));
}

// The forms of a row, ready to be sent: `=0` behind `+X=1` is +X=0.
static page_lines forms_of(const page_lines &row) {
    page_lines forms;
    for (std::string text : in_backticks(row[0])) {
        if (text[0] == '=') {
            text = forms[0].substr(0, forms[0].find('=')) + text;
        }
        text = std::regex_replace(text, std::regex("\"name\""), "\"zr-elog\"");
        forms.push_back(std::regex_replace(text, std::regex("\"command line\""), "\"true\""));
    }
    return forms;
}

// What a form is to be answered in good order, as an expression.
static std::string answer_of(const page_lines &row) {
    if (row[1].compare(0, 2, "OK") == 0) {
        return "\r\nOK\r\n";
    }
    const std::string value = in_backticks(row[1]).at(0);
    const std::string values = row[1].find(" or `0`") != std::string::npos ? "[01]" : "[0-9]+";
    return "\r\n" + value.substr(0, value.find(':')) + ": " + values + "\r\n\r\nOK\r\n";
}

// In an order in which no request spoils the next one: what ends the agent when it follows another is sent before it.
TEST_F(Protocol, EveryCommandIsServedAsTheTableSays) {
    ASSERT_NO_FATAL_FAILURE(boot());
    std::set<std::string> told;
    for (const page_lines &row : table_below(page(kPage), "Commands")) {
        page_lines forms = forms_of(row);
        ASSERT_FALSE(forms.empty()) << row[0];
        if (row[0].find("+DATA_PACKETS_LOG") != std::string::npos) {
            std::reverse(forms.begin(), forms.end());
        }
        for (const std::string &form : forms) {
            if (form[0] == '+') {
                told.insert(form.substr(0, form.find_first_of("=?")));
            }
            const std::string answer = form[0] == '+' ? command(form, 60000) : ask(form + "\r");
            EXPECT_TRUE(std::regex_match(answer, std::regex(answer_of(row)))) << form << " was answered " << answer;
        }
    }
    std::set<std::string> known;
    for (const std::string &line : page("sa/sa-handle/command/command.cpp")) {
        std::smatch match;
        if (std::regex_search(line, match, std::regex("\\{COMMAND\\(\"([^\"]+)\"\\)"))) {
            known.insert(match[1]);
        }
    }
    EXPECT_EQ(told, known) << "the page's commands and the agent's table";
    EXPECT_FALSE(known.empty());
}

// "Anything else behind a name is answered ERROR and changes nothing", for each command that takes something.
TEST_F(Protocol, AnythingElseIsRefused) {
    ASSERT_NO_FATAL_FAILURE(boot());
    for (const page_lines &row : table_below(page(kPage), "Commands")) {
        const std::string form = in_backticks(row[0])[0];
        const size_t equals = form.find('=');
        if (equals == std::string::npos) {
            continue;
        }
        for (const char *argument : {"x", "2", "-1", ""}) {
            EXPECT_EQ(command(form.substr(0, equals + 1) + argument), kError) << form << " with " << argument;
        }
        EXPECT_EQ(command(form.substr(0, equals) + "=?"), kError);
    }
}
