// Reading the documents of this tree: tables and fenced blocks of Markdown, lists and literal blocks of manual pages.
#ifndef TESTS_DOCS_PAGES_H
#define TESTS_DOCS_PAGES_H

#include <string>
#include <vector>

typedef std::vector<std::string> page_lines;

// The lines of a file of the tree ("docs/protocol.md"); empty when it cannot be read, which fails the test.
page_lines page(const std::string &path);

// The rows of the table below a heading, each as its cells without the blanks around them; the head row left out.
std::vector<page_lines> table_below(const page_lines &lines, const std::string &heading);
// The fenced blocks below a heading, up to the next heading of any depth.
std::vector<page_lines> blocks_below(const page_lines &lines, const std::string &heading);
// What stands between backticks.
page_lines in_backticks(const std::string &text);
// \r and \n spelled out become the characters.
std::string unescaped(const std::string &text);

// Heads of a manual page's list items that begin with this macro, as in ".It Pa", and the line behind each.
struct list_item {
    std::string head;
    std::string text;
};
std::vector<list_item> items(const page_lines &lines, const std::string &macro);
// The literal blocks of a manual page, of one section or of all.
std::vector<page_lines> literals(const page_lines &lines, const std::string &section = "");

#endif
