// Every descriptor of the agent is close-on-exec from the call that makes it: a flag that is set afterwards comes too late
// for a thread that forks in between. The one exception is the command channel, whose master is opened with no flag but the
// access mode and marked by the next call.
#include <gtest/gtest.h>

#include <ctype.h>
#include <string.h>

#include <ostream>

#include "tests/faults/stage.h"

static void PrintTo(const stage &s, std::ostream *out) {
    *out << s.name;
}

// Stages that are about one thread: what children open is theirs.
static std::vector<stage> stages_of_threads() {
    std::vector<stage> found;
    for (const stage &s : stages()) {
        if (!traces_children(s)) {
            found.push_back(s);
        }
    }
    return found;
}

class Descriptors : public ::testing::TestWithParam<stage> {};

static bool makes_descriptor(const std::string &line) {
    for (const char *call : {"open(", "openat(", "socket(", "socketpair(", "pipe(", "pipe2(", "dup(", "accept4(",
                             "eventfd2(", "memfd_create(", "epoll_create1(", "inotify_init1("}) {
        if (line.compare(0, strlen(call), call) == 0) {
            return true;
        }
    }
    return line.compare(0, 6, "fcntl(") == 0 && line.find("F_DUPFD") != std::string::npos;
}

static bool is_marked_channel(const std::string &line, const std::string &next) {
    return line.find("\"/dev/ptmx\", O_RDWR)") != std::string::npos && next.compare(0, 6, "fcntl(") == 0 &&
           next.find("F_SETFD, FD_CLOEXEC") != std::string::npos;
}

TEST_P(Descriptors, AreCloseOnExecAtBirth) {
    ending plain;
    ASSERT_TRUE(run_stage(GetParam(), nullptr, nullptr, &plain)) << desk_error();
    EXPECT_FALSE(plain.trace.empty());
    for (size_t i = plain.first; i < plain.trace.size(); i++) {
        const std::string &line = plain.trace[i];
        const std::string next = i + 1 < plain.trace.size() ? plain.trace[i + 1] : "";
        if (makes_descriptor(line) && !is_marked_channel(line, next)) {
            EXPECT_NE(line.find("CLOEXEC"), std::string::npos) << line;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Stages, Descriptors, ::testing::ValuesIn(stages_of_threads()),
                         [](const ::testing::TestParamInfo<stage> &one) {
                             std::string name;
                             for (const char c : one.param.name) {
                                 const bool may_stand = isalnum(static_cast<unsigned char>(c)) != 0;
                                 if (may_stand || (!name.empty() && name.back() != '_')) {
                                     name += may_stand ? c : '_';
                                 }
                             }
                             return name + "_" + std::to_string(one.index);
                         });
