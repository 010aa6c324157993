// The report as a table, as a page and as a chart. No state.
#include <math.h>
#include <stdio.h>
#include <sys/utsname.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>

#include "bench/measure.h"

// ---- cells

static std::string number_text(double value, const std::string &unit) {
    if (unit == "×") {
        return text_of("%.2f", value);
    }
    return text_of(value == floor(value) ? "%.0f" : "%.1f", value);
}

static std::string value_text(const figure &line) {
    const spread &v = line.value;
    return number_text(v.median, line.unit) + " " + line.unit + " (" + number_text(v.least, line.unit) + " – " +
           number_text(v.most, line.unit) + ")";
}

static std::string goal_text(const figure &line) {
    if (line.kind == NO_GOAL) {
        return "–";
    }
    return (line.kind == AT_MOST ? "≤ " : "≥ ") + number_text(line.goal, line.unit) + " " + line.unit;
}

static std::string met_text(const figure &line) {
    return line.kind == NO_GOAL ? "–" : is_met(line) ? "yes" : "NO";
}

static std::vector<std::string> cells_of(const figure &line) {
    return {line.what, line.ours, line.beside, value_text(line), goal_text(line), met_text(line)};
}

static const std::vector<std::string> kTitles = {"what", "agent", "compared with", "value: median (min – max)",
                                                 "goal", "met"};

static std::vector<std::vector<std::string>> rows_of(const report &lines) {
    std::vector<std::vector<std::string>> rows = {kTitles};
    for (const figure &line : lines) {
        rows.push_back(cells_of(line));
    }
    return rows;
}

// ---- table

// Characters, not bytes: continuation bytes of UTF-8 do not count.
static size_t width_of(const std::string &text) {
    return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) { return (c & 0xC0) != 0x80; }));
}

void print_table(const report &lines) {
    const std::vector<std::vector<std::string>> rows = rows_of(lines);
    std::vector<size_t> widths(kTitles.size(), 0);
    for (const auto &row : rows) {
        for (size_t i = 0; i < row.size(); i++) {
            widths[i] = std::max(widths[i], width_of(row[i]));
        }
    }
    for (const auto &row : rows) {
        for (size_t i = 0; i < row.size(); i++) {
            printf("%s%*s", row[i].c_str(), static_cast<int>(widths[i] - width_of(row[i]) + 2), "");
        }
        printf("\n");
    }
}

// ---- page

static std::string processor_name() {
    std::ifstream file("/proc/cpuinfo");
    std::string line;
    while (std::getline(file, line)) {
        if (line.compare(0, 10, "model name") == 0) {
            return line.substr(line.find(':') + 2);
        }
    }
    return "unknown processor";
}

static std::string today() {
    char text[32];
    const time_t now = time(nullptr);
    struct tm utc;
    gmtime_r(&now, &utc);
    strftime(text, sizeof(text), "%Y-%m-%d", &utc);
    return text;
}

void write_markdown(const report &lines, const std::string &path) {
    std::ofstream page(path);
    struct utsname system;
    uname(&system);
    page << "# Measurements\n\n"
         << "Written by `./dev bench` on " << today() << ", on " << processor_name() << ", "
         << sysconf(_SC_NPROCESSORS_ONLN) << " processors, Linux " << system.release << ".\n\n"
         << "Each value is the median, with minimum and maximum in brackets, of several runs. Each run measures the "
            "agent\n"
         << "and what it is compared with directly after each other. × is the agent's value divided by the other's.\n"
         << "A floor is a lower bound: a few lines of C++ (`bench/floors/`) that make only the system calls that the "
            "agent\n"
         << "must make. `bench/README.md` explains the values and the reasons for missed goals.\n\n"
         << "![Each value as a share of its limit](chart.svg)\n\n";
    const std::vector<std::vector<std::string>> rows = rows_of(lines);
    for (size_t i = 0; i < rows.size(); i++) {
        for (const std::string &cell : rows[i]) {
            page << "| " << cell << " ";
        }
        page << "|\n" << (i == 0 ? "|---|---|---|---|---|---|\n" : "");
    }
}

// ---- chart

static const int kBarLeft = 400;
static const int kBarUnit = 240;  // pixels of 100 per cent
static const int kRowHeight = 22;
static const double kWidest = 2.0;  // longer bars are cut

// The share of what the goal allows, 1 being all of it.
static double share_of(const figure &line, double value) {
    if (line.kind == AT_LEAST) {
        return value > 0 ? line.goal / value : kWidest;
    }
    return line.goal > 0 ? value / line.goal : value > 0 ? kWidest : 0;
}

static int pixels(double share) {
    return static_cast<int>(std::min(std::max(share, 0.0), kWidest) * kBarUnit);
}

static std::string escaped(const std::string &text) {
    std::string safe;
    for (const char c : text) {
        safe += c == '&' ? "&amp;" : c == '<' ? "&lt;" : std::string(1, c);
    }
    return safe;
}

static void write_bar(std::ofstream &chart, const figure &line, int y) {
    double least = share_of(line, line.value.least);
    double most = share_of(line, line.value.most);
    if (least > most) {
        std::swap(least, most);
    }
    const int middle = y + kRowHeight / 2 - 2;
    chart << text_of("<text x=\"%d\" y=\"%d\" text-anchor=\"end\">", kBarLeft - 8, middle + 4) << escaped(line.what)
          << "</text>\n"
          << text_of("<rect x=\"%d\" y=\"%d\" width=\"%d\" height=\"%d\" fill=\"%s\"/>\n", kBarLeft, y + 3,
                     std::max(1, pixels(share_of(line, line.value.median))), kRowHeight - 10,
                     is_met(line) ? "#4a7ebb" : "#c0504d")
          << text_of("<line x1=\"%d\" y1=\"%d\" x2=\"%d\" y2=\"%d\" stroke=\"#222\"/>\n", kBarLeft + pixels(least),
                     middle, kBarLeft + pixels(most), middle);
}

void write_chart(const report &lines, const std::string &path) {
    report shown;
    std::copy_if(lines.begin(), lines.end(), std::back_inserter(shown),
                 [](const figure &line) { return line.kind != NO_GOAL; });
    const int bottom = 40 + kRowHeight * static_cast<int>(shown.size());
    const int goal = kBarLeft + kBarUnit;
    std::ofstream chart(path);
    chart << text_of(
                 "<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"%d\" height=\"%d\" font-family=\"sans-serif\" "
                 "font-size=\"12\">\n",
                 kBarLeft + static_cast<int>(kWidest * kBarUnit) + 20, bottom + 10)
          << "<rect width=\"100%\" height=\"100%\" fill=\"white\"/>\n"
          << text_of("<text x=\"%d\" y=\"18\" text-anchor=\"middle\">limit</text>\n", goal);
    for (size_t i = 0; i < shown.size(); i++) {
        write_bar(chart, shown[i], 30 + kRowHeight * static_cast<int>(i));
    }
    chart << text_of("<line x1=\"%d\" y1=\"24\" x2=\"%d\" y2=\"%d\" stroke=\"#c0504d\" stroke-dasharray=\"4 3\"/>\n",
                     goal, goal, bottom)
          << "</svg>\n";
}
