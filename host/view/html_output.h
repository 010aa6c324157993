#pragma once
// Lines as one self-contained page for a browser.
//
// The page holds the lines in blocks of about two megabytes, each compressed by gzip and written in base64. A block is:
//   8 bytes a line   time in microseconds, a little-endian double
//   4 bytes a line   where the next line's text begins in the texts, little-endian
//   1 byte a line    source, severity << 3, 32 when the time has milliseconds only
//   texts            UTF-8, each with a newline
// What the page shows before it has unpacked a block, it takes from the index: the number of lines and the times of each
// block, and the density of each source over time.

#include <cstdio>
#include <string>
#include <vector>

#include "view/merge.h"

constexpr size_t DENSITY_BINS = 1024;

struct html_block {
    uint64_t lines = 0;
    int64_t first = 0;  // time of its first line
    int64_t least = 0;
    int64_t most = 0;
};

struct html_output {
    FILE *file = nullptr;
    std::string path;
    bool is_failed = false;  // said already
    std::vector<html_block> blocks;
    html_block block;  // the one being filled
    std::string times;
    std::string ends;
    std::string kinds;
    std::string texts;
    int64_t origin = 0;  // of the density
    int64_t width = 1;   // of one of its bins
    uint32_t density[SOURCE_COUNT][DENSITY_BINS] = {};
    int64_t shown_ms = 0;
};

// Creates the file. Result: false with the failure said.
bool html_output_open(html_output *out, const std::string &path);

// A line_taker; the context is the html_output.
bool html_output_take(void *context, const shown_line &shown);

// Writes what is left and the page's program. `notes`: sentences for its head. Result: a host_status, failures said.
int html_output_close(html_output *out, const std::string &name, const std::vector<std::string> &notes);
