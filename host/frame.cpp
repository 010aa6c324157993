// base64. Owns no state.

#include "frame.h"

#include <algorithm>

void frame_line(const std::string &bytes, size_t at, size_t len, std::string *out) {
    static const char digits[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    for (size_t end = at + len; at < end; at += 3) {
        size_t count = std::min<size_t>(3, end - at);
        unsigned bits = 0;
        for (size_t i = 0; i < 3; ++i) {
            bits = bits << 8 | (i < count ? static_cast<unsigned char>(bytes[at + i]) : 0U);
        }
        for (size_t i = 0; i < 4; ++i) {
            *out += i <= count ? digits[bits >> (18 - 6 * i) & 63] : '=';
        }
    }
    *out += '\n';
}
