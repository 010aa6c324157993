#pragma once
// Lines on standard output: plain, or with colour and through the pager on a terminal.

#include "view/merge.h"

struct text_output {
    pid_t pager = -1;
    int pager_fd = -1;  // its standard input; -1: lines go to standard output
    bool is_pager_gone = false;
    bool is_coloured = false;
    std::string buf;
};

// Starts the pager when standard output is a terminal.
void text_output_open(text_output *out);

// A line_taker; the context is the text_output.
bool text_output_take(void *context, const shown_line &shown);

// Writes what is left and waits for the pager. A pager that was left early is no failure.
void text_output_close(text_output *out);
