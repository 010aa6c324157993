// Taking documents apart. No state.
#include "tests/docs/pages.h"

#include <gtest/gtest.h>

#include <fstream>

static bool begins(const std::string &text, const std::string &part) {
    return text.compare(0, part.size(), part) == 0;
}

page_lines page(const std::string &path) {
    page_lines lines;
    std::ifstream file(SOURCE_TREE "/" + path);
    for (std::string line; std::getline(file, line);) {
        lines.push_back(line);
    }
    EXPECT_FALSE(lines.empty()) << path;
    return lines;
}

static std::string trimmed(const std::string &text) {
    const size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? "" : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

static page_lines cells_of(const std::string &row) {
    page_lines cells;
    size_t from = 1;
    for (size_t bar; (bar = row.find('|', from)) != std::string::npos; from = bar + 1) {
        cells.push_back(trimmed(row.substr(from, bar - from)));
    }
    return cells;
}

// The lines from behind a heading to the next one. A "#" in a fenced block is none.
static page_lines below(const page_lines &lines, const std::string &heading) {
    page_lines found;
    bool is_inside = false;
    bool is_fenced = false;
    for (const std::string &line : lines) {
        is_fenced = is_fenced != begins(line, "```");
        if (!is_fenced && begins(line, "#")) {
            is_inside = trimmed(line.substr(line.find_first_not_of('#'))) == heading;
        } else if (is_inside) {
            found.push_back(line);
        }
    }
    EXPECT_FALSE(found.empty()) << "nothing below " << heading;
    return found;
}

std::vector<page_lines> table_below(const page_lines &lines, const std::string &heading) {
    std::vector<page_lines> rows;
    bool is_body = false;
    for (const std::string &line : below(lines, heading)) {
        if (begins(line, "|---")) {
            is_body = true;
        } else if (!begins(line, "|")) {
            is_body = false;
        } else if (is_body) {
            rows.push_back(cells_of(line));
        }
    }
    EXPECT_FALSE(rows.empty()) << "no table below " << heading;
    return rows;
}

std::vector<page_lines> blocks_below(const page_lines &lines, const std::string &heading) {
    std::vector<page_lines> blocks;
    bool is_fenced = false;
    for (const std::string &line : below(lines, heading)) {
        if (begins(line, "```")) {
            is_fenced = !is_fenced;
            if (is_fenced) {
                blocks.emplace_back();
            }
        } else if (is_fenced) {
            blocks.back().push_back(line);
        }
    }
    return blocks;
}

page_lines in_backticks(const std::string &text) {
    page_lines found;
    for (size_t from = 0, first; (first = text.find('`', from)) != std::string::npos;) {
        const size_t last = text.find('`', first + 1);
        if (last == std::string::npos) {
            break;
        }
        found.push_back(text.substr(first + 1, last - first - 1));
        from = last + 1;
    }
    return found;
}

std::string unescaped(const std::string &text) {
    std::string plain;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '\\' && i + 1 < text.size() && (text[i + 1] == 'r' || text[i + 1] == 'n')) {
            plain += text[++i] == 'r' ? '\r' : '\n';
        } else {
            plain += text[i];
        }
    }
    return plain;
}

std::vector<list_item> items(const page_lines &lines, const std::string &macro) {
    std::vector<list_item> found;
    for (size_t i = 0; i < lines.size(); i++) {
        if (begins(lines[i], macro + " ")) {
            found.push_back({lines[i].substr(macro.size() + 1), i + 1 < lines.size() ? lines[i + 1] : ""});
        }
    }
    EXPECT_FALSE(found.empty()) << "no " << macro;
    return found;
}

std::vector<page_lines> literals(const page_lines &lines, const std::string &section) {
    std::vector<page_lines> blocks;
    bool is_section = section.empty();
    bool is_literal = false;
    for (const std::string &line : lines) {
        if (begins(line, ".Sh ")) {
            is_section = section.empty() || line.substr(4) == section;
        } else if (begins(line, ".Bd -literal") && is_section) {
            is_literal = true;
            blocks.emplace_back();
        } else if (begins(line, ".Ed")) {
            is_literal = false;
        } else if (is_literal) {
            blocks.back().push_back(line);
        }
    }
    return blocks;
}
