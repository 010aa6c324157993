// Filters by tag. No state.
#include "handset/logcat/filter.h"

#include <android/log.h>
#include <ctype.h>
#include <string.h>

static constexpr char kSeparators[] = " \t,";

static int priority_of(char letter) {
    switch (tolower(static_cast<unsigned char>(letter))) {
        case 'v': return ANDROID_LOG_VERBOSE;
        case 'd': return ANDROID_LOG_DEBUG;
        case 'i': return ANDROID_LOG_INFO;
        case 'w': return ANDROID_LOG_WARN;
        case 'e': return ANDROID_LOG_ERROR;
        case 'f': return ANDROID_LOG_FATAL;
        case 's': return ANDROID_LOG_SILENT;
        case '*': return ANDROID_LOG_DEFAULT;
        default: break;
    }
    return isdigit(static_cast<unsigned char>(letter)) != 0 && letter - '0' <= ANDROID_LOG_SILENT
               ? letter - '0'
               : static_cast<int>(ANDROID_LOG_UNKNOWN);
}

static bool add_rule(const char *rule, log_filter *filter) {
    const size_t length = strcspn(rule, ":");
    if (length == 0) {
        return false;
    }
    int priority = ANDROID_LOG_DEFAULT;
    if (rule[length] == ':') {
        priority = priority_of(rule[length + 1]);
        if (priority == ANDROID_LOG_UNKNOWN) {
            return false;
        }
    }
    const std::string tag(rule, length);
    if (tag == "*") {
        filter->others = priority == ANDROID_LOG_DEFAULT ? static_cast<int>(ANDROID_LOG_DEBUG) : priority;
    } else {
        filter->tags.emplace_back(tag,
                                  priority == ANDROID_LOG_DEFAULT ? static_cast<int>(ANDROID_LOG_VERBOSE) : priority);
    }
    return true;
}

bool log_filter_add(const char *text, log_filter *filter) {
    std::string copy = text;
    char *rest = nullptr;
    for (char *rule = strtok_r(copy.data(), kSeparators, &rest); rule != nullptr;
         rule = strtok_r(nullptr, kSeparators, &rest)) {
        if (!add_rule(rule, filter)) {
            return false;
        }
    }
    return true;
}

bool log_filter_passes(const log_filter &filter, const std::string &tag, int priority) {
    for (auto at = filter.tags.rbegin(); at != filter.tags.rend(); ++at) {
        if (at->first == tag) {
            return priority >= at->second;
        }
    }
    return priority >= filter.others;
}
