// Rings of log entries behind one lock.
// State: the rings, their sizes and the running number; m_lock guards all of it and is held only for a look or a copy.
#include "handset/logd/store.h"

#include <algorithm>
#include <deque>
#include <mutex>
#include <utility>

struct ring {
    std::deque<log_entry> entries;  // ascending numbers
    size_t bytes = 0;
};

static std::mutex m_lock;
static ring m_rings[kLogBufferCount];
static size_t m_limit = 1u << 20;
static uint64_t m_newest = 0;

static size_t entry_bytes(const log_entry &entry) {
    return entry.payload.size() + sizeof entry.header;
}

void store_set_limit(size_t bytes) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_limit = bytes;
}

void store_continue(uint64_t sequence) {
    std::lock_guard<std::mutex> guard(m_lock);
    m_newest = sequence;
}

static void add_one(log_entry *entry) {
    ring &to = m_rings[entry->header.buffer];
    entry->sequence = ++m_newest;
    to.bytes += entry_bytes(*entry);
    to.entries.push_back(*entry);
    while (to.bytes > m_limit && to.entries.size() > 1) {
        to.bytes -= entry_bytes(to.entries.front());
        to.entries.pop_front();
    }
}

void store_add(std::vector<log_entry> *entries) {
    std::lock_guard<std::mutex> guard(m_lock);
    for (log_entry &entry : *entries) {
        add_one(&entry);
    }
}

uint64_t store_newest() {
    std::lock_guard<std::mutex> guard(m_lock);
    return m_newest;
}

static bool is_wanted(const log_query &query, const log_entry &entry) {
    if (!query.all_users && entry.header.uid != query.uid) {
        return false;
    }
    if (query.pid != 0 && entry.header.pid != query.pid) {
        return false;
    }
    const uint64_t stamp = entry.header.sec * UINT64_C(1000000000) + entry.header.nsec;
    return entry.sequence > query.stored_until || stamp > query.after_ns;
}

// First wanted entry of one ring with a number of at least `from`, or null.
static const log_entry *next_in(const ring &in, const log_query &query, uint64_t from) {
    auto at = std::lower_bound(in.entries.begin(), in.entries.end(), from,
                               [](const log_entry &entry, uint64_t number) { return entry.sequence < number; });
    for (; at != in.entries.end(); ++at) {
        if (is_wanted(query, *at)) {
            return &*at;
        }
    }
    return nullptr;
}

bool store_next(const log_query &query, uint64_t from, log_entry *out) {
    std::lock_guard<std::mutex> guard(m_lock);
    const log_entry *first = nullptr;
    for (unsigned i = 0; i < kLogBufferCount; i++) {
        const log_entry *found = (query.buffers >> i & 1) != 0 ? next_in(m_rings[i], query, from) : nullptr;
        if (found != nullptr && (first == nullptr || found->sequence < first->sequence)) {
            first = found;
        }
    }
    if (first == nullptr) {
        return false;
    }
    *out = *first;
    return true;
}

uint64_t store_tail(const log_query &query, size_t count) {
    std::lock_guard<std::mutex> guard(m_lock);
    std::deque<uint64_t> numbers;
    for (unsigned i = 0; i < kLogBufferCount; i++) {
        if ((query.buffers >> i & 1) == 0) {
            continue;
        }
        for (const log_entry &entry : m_rings[i].entries) {
            if (is_wanted(query, entry)) {
                numbers.push_back(entry.sequence);
            }
        }
    }
    if (numbers.size() <= count) {
        return 0;
    }
    std::sort(numbers.begin(), numbers.end());
    return count == 0 ? numbers.back() + 1 : numbers[numbers.size() - count];
}
