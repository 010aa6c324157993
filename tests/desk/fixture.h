// What the tests of the desk handset share. A handset ends with its scope.
#ifndef TESTS_DESK_FIXTURE_H
#define TESTS_DESK_FIXTURE_H

#include <gtest/gtest.h>

#include "handset/desk/desk.h"

// A booted handset; a test starts with BOOTED.
struct handset {
    explicit handset(const desk_options &options = no_agent());
    ~handset();
    handset(const handset &) = delete;
    handset &operator=(const handset &) = delete;

    static desk_options no_agent();  // the defaults, without the agent's service

    desk *h;
};

#define BOOTED(set) ASSERT_NE((set).h, nullptr) << desk_error()

// Sends a request to the property service, whatever the name and value are. Its reply code; -1 without a reply.
int property_reply(desk *h, const std::string &name, const std::string &value);

// An rc file for desk_options::files.
desk_file rc_file(const std::string &text);

// The states of a service in the journal, in order, as "running stopped".
std::string states_of(desk *h, const std::string &service);

#endif
