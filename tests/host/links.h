// Tests of sa-host that hold over every kind of link: the kind is their parameter.
#ifndef TESTS_HOST_LINKS_H
#define TESTS_HOST_LINKS_H

#include "tests/host/adb.h"

class LinkTest : public AdbTest, public testing::WithParamInterface<const char *> {
  protected:
    void SetUp() override {
        if (is_adb()) {
            AdbTest::SetUp();
        }
    }
    bool is_adb() const {
        return std::string(GetParam()) == "adb";
    }
    void boot_link(const desk_options &options = quiet_options()) {
        is_adb() ? boot_adb(options) : boot_host(options);
    }
    void boot_link_without_agent() {
        desk_options options = quiet_options();
        options.agent = false;
        ASSERT_NO_FATAL_FAILURE(boot_only(options));
        if (is_adb()) {
            ASSERT_NO_FATAL_FAILURE(cable.plug_in(h));
        }
    }
    words inside(const words &arguments) const override {
        return is_adb() ? AdbTest::inside(arguments) : HostTest::inside(arguments);
    }
};

// Reads a running sa-host's output until it contains `text` behind `from`; false when it does not come.
inline bool host_expect(host_job *job, const std::string &text, size_t from = 0) {
    return desk_until([&] {
        char buf[65536];
        const ssize_t got = read(job->out, buf, sizeof(buf));
        job->out_text.append(buf, got > 0 ? static_cast<size_t>(got) : 0);
        return job->out_text.find(text, from) != std::string::npos;
    });
}

#define OVER_EVERY_LINK(suite)                                             \
    INSTANTIATE_TEST_SUITE_P(Over, suite, testing::Values("local", "adb"), \
                             [](const testing::TestParamInfo<const char *> &link) { return std::string(link.param); })

#endif
