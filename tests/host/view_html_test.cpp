// `sa-host view --html`: the page as a person sees it in a browser.
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

#include "tests/host/browser.h"
#include "tests/host/log_set.h"

namespace {

class Page : public testing::Test {
  protected:
    void SetUp() override {
        if (browser_program().empty()) {
            GTEST_SKIP() << "the package chromium is not installed";
        }
    }
    void TearDown() override {
        browser_close(&b);
    }
    void log(const std::string &name, const std::string &text) {
        set_write(set + "/log", name, text);
    }
    // Five lines of three sources, a minute apart.
    void write_five() {
        log("logcat.log",
            "01-02 03:00:00.000001   100   101 D tag: first\n"
            "01-02 03:02:00.000000   100   101 E Other: grün <b>&amp;</b>\n"
            "01-02 03:04:00.000000   100   101 W tag: last\n");
        log("logcat-radio.log", "01-02 03:01:00.000000     5     6 D RILJ: x\n");
        log("sa.log", "[01-02 03:03:00.123]main pid[5]\n");
    }
    void open(const words &arguments = {}) {
        words all = {"view", set, "--html", page};
        all.insert(all.end(), arguments.begin(), arguments.end());
        const host_result written = host_run(all);
        ASSERT_EQ(written.status, 0) << written.err;
        ASSERT_TRUE(browser_open(&b, page));
        ASSERT_TRUE(browser_wait(&b, "document.documentElement.dataset.state === 'ready'"));
    }
    std::string value(const std::string &expression) {
        return browser_value(&b, expression);
    }
    // The rows in sight, a line each, their columns with a bar between them.
    std::string rows() {
        return value(
            "[...document.querySelectorAll('.row')].filter(row => row.style.display !== 'none')"
            ".map(row => [...row.children].map(e => e.textContent).join('|')).join('\\n')");
    }
    bool wait_count(const std::string &text) {
        return browser_wait(&b, "document.getElementById('count').textContent === '" + text + "'");
    }
    std::string selected() {
        return value("(document.querySelector('.row.selected .text') || {}).textContent");
    }
    // The middle of an element on the screen.
    int x_of(const std::string &element, double part = .5) {
        return atoi(value("Math.round((r => r.left + r.width * " + std::to_string(part) + ")(" + element +
                          ".getBoundingClientRect()))")
                        .c_str());
    }
    int y_of(const std::string &element) {
        return atoi(value("Math.round((r => r.top + r.height / 2)(" + element + ".getBoundingClientRect()))").c_str());
    }
    void click(const std::string &element) {
        browser_click(&b, x_of(element), y_of(element));
    }
    void type_filter(const std::string &text) {
        browser_key(&b, "/");
        browser_type(&b, text);
    }
    temporary_dir dir;
    const std::string set = set_make(dir);
    const std::string page = dir.path + "/page.html";
    browser b;
};

const char kDensity[] = "document.getElementById('density')";

TEST_F(Page, ShowsLinesSourcesAndNotes) {
    write_five();
    unlink((set + "/ps.log").c_str());
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_EQ(value("document.title"), "2026_01_02_03_04_05 – log set");
    EXPECT_EQ(rows(),
              "01-02 03:00:00.000001|main|  100   101 D tag: first\n"
              "01-02 03:01:00.000000|radio|    5     6 D RILJ: x\n"
              "01-02 03:02:00.000000|main|  100   101 E Other: grün <b>&amp;</b>\n"
              "01-02 03:03:00.123|sa|main pid[5]\n"
              "01-02 03:04:00.000000|main|  100   101 W tag: last");
    EXPECT_EQ(value("[...document.querySelectorAll('#names label')].map(e => e.textContent).join(' ')"),
              "kernel0 main3 events0 radio1 sa1 packets0");
    EXPECT_EQ(value("document.getElementById('notes').textContent"),
              "The set is incomplete: it has no ps.log. save-log was interrupted.");
    EXPECT_EQ(value("document.querySelector('.row.error .text').textContent.includes('Other')"), "true");
    EXPECT_EQ(value("document.querySelector('.row.warning .text').textContent.includes('last')"), "true");
}

TEST_F(Page, HoldsTheChosenLinesOnly) {
    write_five();
    ASSERT_NO_FATAL_FAILURE(open({"--only", "main", "--grep", "tag", "--since", "03:01"}));
    EXPECT_EQ(rows(), "01-02 03:04:00.000000|main|  100   101 W tag: last");
}

TEST_F(Page, FiltersWhileOneTypes) {
    write_five();
    ASSERT_NO_FATAL_FAILURE(open());
    type_filter("TAG");
    EXPECT_TRUE(wait_count("0 of 5 lines")) << "a capital letter makes it case-sensitive";
    EXPECT_EQ(value("document.getElementById('empty').style.display"), "block");
    browser_key(&b, "Escape");
    EXPECT_TRUE(wait_count("5 lines"));
    type_filter("r: grü");
    EXPECT_TRUE(wait_count("1 of 5 lines"));
    EXPECT_EQ(value("document.querySelector('mark').textContent"), "r: grü");
    browser_key(&b, "Escape");
    EXPECT_TRUE(wait_count("5 lines"));
    type_filter("^ +100.*(first|last)$");
    EXPECT_TRUE(wait_count("0 of 5 lines")) << "not an expression yet";
    click("document.getElementById('regex')");
    EXPECT_TRUE(wait_count("2 of 5 lines"));
    EXPECT_EQ(rows(),
              "01-02 03:00:00.000001|main|  100   101 D tag: first\n"
              "01-02 03:04:00.000000|main|  100   101 W tag: last");
}

TEST_F(Page, HidesSourcesAndSeverities) {
    write_five();
    ASSERT_NO_FATAL_FAILURE(open());
    click("document.querySelectorAll('#names input')[1]");
    EXPECT_TRUE(wait_count("2 of 5 lines"));
    EXPECT_EQ(rows(), "01-02 03:01:00.000000|radio|    5     6 D RILJ: x\n01-02 03:03:00.123|sa|main pid[5]");
    click("document.querySelectorAll('#names input')[1]");
    EXPECT_TRUE(wait_count("5 lines"));
    value("(e => { e.value = 2; e.dispatchEvent(new Event('change')); })(document.getElementById('severity'))");
    EXPECT_TRUE(wait_count("1 of 5 lines"));
    EXPECT_EQ(rows(), "01-02 03:02:00.000000|main|  100   101 E Other: grün <b>&amp;</b>");
}

TEST_F(Page, AClickInTheLanesGoesToTheLine) {
    std::string lines;
    for (int i = 0; i < 6000; ++i) {
        char line[80];
        snprintf(line, sizeof(line), "[01-02 %02d:%02d:%02d.000]line %d\n", i / 3600, i / 60 % 60, i % 60, i);
        lines += line;
    }
    log("sa.log", lines);
    ASSERT_NO_FATAL_FAILURE(open());
    browser_click(&b, x_of(kDensity, .75), y_of(kDensity));
    ASSERT_TRUE(browser_wait(&b, "document.querySelector('.row.selected') !== null"));
    // A pixel stands for about six lines.
    EXPECT_NEAR(atoi(selected().c_str() + 5), 4500, 12);
    EXPECT_EQ(value("document.getElementById('detail').textContent.slice(0, 18)"), "2026-01-02 01:15:0");
    // Filtering keeps the line in sight, and so does dropping the filter.
    const std::string line = selected();
    type_filter(line.substr(0, 8));
    EXPECT_TRUE(wait_count("11 of 6,000 lines")) << line;  // such as 449 and 4490 to 4499
    EXPECT_EQ(selected(), line);
    browser_key(&b, "Escape");
    EXPECT_TRUE(wait_count("6,000 lines"));
    EXPECT_EQ(selected(), line);
}

TEST_F(Page, DraggingOverTheLanesZoomsInAndTheButtonOut) {
    write_five();
    ASSERT_NO_FATAL_FAILURE(open());
    browser_drag(&b, x_of(kDensity, .25), y_of(kDensity), x_of(kDensity, .5), y_of(kDensity));
    EXPECT_TRUE(
        browser_wait(&b, "Math.abs((to - from) / 60e6 - 1) < .02 && Math.abs((from - wholeFrom) / 60e6 - 1) < .02"));
    click("document.getElementById('whole')");
    EXPECT_TRUE(browser_wait(&b, "from === wholeFrom && to === wholeTo"));
}

TEST_F(Page, KeysMoveTheSelection) {
    write_five();
    ASSERT_NO_FATAL_FAILURE(open());
    browser_key(&b, "ArrowDown");
    browser_key(&b, "ArrowDown");
    EXPECT_TRUE(
        browser_wait(&b, "document.querySelector('.row.selected .text').textContent === '    5     6 D RILJ: x'"));
    EXPECT_EQ(value("location.hash"), "#line=2");
    browser_key(&b, "Escape");
    EXPECT_EQ(value("document.querySelector('.row.selected')"), "null");
}

TEST_F(Page, ShowsTextThatLooksLikeAPage) {
    log("sa.log",
        "[01-02 03:00:00.000]</script><script>document.title = 'taken'</script><img src=x onerror=alert(1)>\n");
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_EQ(rows(),
              "01-02 03:00:00.000|sa|</script><script>document.title = 'taken'</script><img src=x onerror=alert(1)>");
    EXPECT_EQ(value("document.title"), "2026_01_02_03_04_05 – log set");
    EXPECT_EQ(value("document.images.length"), "0");
}

TEST_F(Page, UsesNoNetwork) {
    write_five();
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_EQ(value("performance.getEntriesByType('resource').length"), "0");
    EXPECT_EQ(value("new Promise(done => { document.addEventListener('securitypolicyviolation', "
                    "event => done(event.effectiveDirective)); fetch('http://127.0.0.1:9/').catch(() => 0); })"),
              "connect-src");
    std::ifstream file(page);
    std::ostringstream text;
    text << file.rdbuf();
    for (const char *reference : {"http:", "https:", "src=", "href=", "@import", "url("}) {
        EXPECT_EQ(text.str().find(reference), std::string::npos) << reference;
    }
}

// More lines than a browser can lay out, in several blocks.
TEST_F(Page, ScrollsThroughAMillionLines) {
    constexpr int kLines = 1000000;
    FILE *file = fopen((set + "/log/sa.log").c_str(), "we");
    ASSERT_NE(file, nullptr);
    for (int i = 0; i < kLines; ++i) {
        fprintf(file, "[01-01 %02d:%02d:%02d.%03d]line %d\n", i / 3600000, i / 60000 % 60, i / 1000 % 60, i % 1000, i);
    }
    fclose(file);
    ASSERT_NO_FATAL_FAILURE(open());
    EXPECT_TRUE(wait_count("1,000,000 lines"));
    EXPECT_GT(atoi(value("index.blocks.length").c_str()), 5);
    browser_key(&b, "End");
    EXPECT_TRUE(browser_wait(
        &b, "[...document.querySelectorAll('.row')].some(row => row.textContent.endsWith('line 999999'))"));
    browser_key(&b, "PageUp");
    EXPECT_TRUE(browser_wait(
        &b, "![...document.querySelectorAll('.row')].some(row => row.textContent.endsWith('line 999999'))"));
    value("(list.scrollTop = list.scrollHeight / 2)");
    EXPECT_TRUE(browser_wait(&b, "Math.abs(topRow - 500000) < 100"));
    browser_key(&b, "Home");
    type_filter("7 7");
    EXPECT_TRUE(wait_count("0 of 1,000,000 lines"));
    browser_key(&b, "Escape");
    type_filter("e 99999");
    EXPECT_TRUE(wait_count("11 of 1,000,000 lines"));
}

class PageFile : public testing::Test {
  protected:
    temporary_dir dir;
    const std::string set = set_make(dir);
};

TEST_F(PageFile, AFullDiskIsTold) {
    set_write(set + "/log", "sa.log", "[01-02 03:00:00.000]x\n");
    const host_result result = host_run({"view", set, "--html", "/dev/full"});
    EXPECT_EQ(result.status, 1);
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err.find("/dev/full cannot be written: No space left on device"), std::string::npos) << result.err;
    EXPECT_NE(host_run({"view", set, "--html", dir.path + "/none/page"}).err.find("No such file or directory"),
              std::string::npos);
}

TEST_F(PageFile, AMissingGzipIsTold) {
    set_write(set + "/log", "sa.log", "[01-02 03:00:00.000]x\n");
    const std::string before = getenv("PATH");
    setenv("PATH", dir.path.c_str(), 1);
    const host_result result = host_run({"view", set, "--html", dir.path + "/page.html"});
    setenv("PATH", before.c_str(), 1);
    EXPECT_EQ(result.status, 1);
    EXPECT_NE(result.err.find("No such file or directory (gzip)"), std::string::npos) << result.err;
}

}  // namespace
