// Checks UTF-8. No state.
#include "handset/common/utf8.h"

size_t utf8_length(const std::string &text, size_t at) {
    const auto *bytes = reinterpret_cast<const unsigned char *>(text.data()) + at;
    const unsigned char c = bytes[0];
    if (c < 0x80) {
        return 1;
    }
    const size_t length = c >= 0xF0 ? 4 : c >= 0xE0 ? 3 : 2;
    if (c < 0xC2 || c > 0xF4 || length > text.size() - at) {
        return 0;
    }
    for (size_t i = 1; i < length; i++) {
        if ((bytes[i] & 0xC0) != 0x80) {
            return 0;
        }
    }
    // Overlong forms, surrogates and numbers above the last code point.
    const bool is_bad = (c == 0xE0 && bytes[1] < 0xA0) || (c == 0xED && bytes[1] >= 0xA0) ||
                        (c == 0xF0 && bytes[1] < 0x90) || (c == 0xF4 && bytes[1] >= 0x90);
    return is_bad ? 0 : length;
}
