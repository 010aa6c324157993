// What the tests of the desk handset share: a handset that ends with its scope, and clients of the property socket.
#ifndef TESTS_DESK_FIXTURE_H
#define TESTS_DESK_FIXTURE_H

#include <gtest/gtest.h>

#include "desk.h"

// A booted handset; a test asserts `up` first.
struct handset {
    explicit handset(const desk_options &options = no_agent());
    ~handset();
    handset(const handset &) = delete;
    handset &operator=(const handset &) = delete;

    static desk_options no_agent();  // the defaults, without the agent's service

    desk *h;
};

#define BOOTED(set) ASSERT_NE((set).h, nullptr) << desk_error()

// A raw connection to the property service; -1 on failure.
int property_connect(desk *h);
// Sends bytes, closes our sending side when asked, reads the answer to its end.
std::string property_exchange(desk *h, const std::string &bytes, bool half_close = false);
// A request of the protocol with replies.
std::string property_request_bytes(const std::string &name, const std::string &value, uint32_t command = 0x00020001);
// The request sent and its reply code; -1 when there was no whole reply.
int property_reply(desk *h, const std::string &name, const std::string &value);

// A boot option: an rc file of the test's own.
desk_file rc_file(const std::string &text);

// States that the journal tells of a service, in order, as "running stopped".
std::string states_of(desk *h, const std::string &service);

#endif
