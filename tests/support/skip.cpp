// Skipping from inside the desk library: the skip is noted, and GoogleTest's own exception leaves the test. No state.
#include "tests/support/skip.h"

#include <gtest/gtest.h>

#include "handset/desk/in_place.h"

static void note(const std::string &what) {
    GTEST_SKIP() << "in place: no " << what;
}

[[noreturn]] static void skip(const std::string &what) {
    note(what);
    throw testing::AssertionException(
        testing::TestPartResult(testing::TestPartResult::kSkip, __FILE__, __LINE__, what.c_str()));
}

void skip_in_place(const std::string &what) {
    if (desk_in_place()) {
        skip(what);
    }
}

bool skip_unsupported() {
    desk_on_missing(skip);
    return true;
}
