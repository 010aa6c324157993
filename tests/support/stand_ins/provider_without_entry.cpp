// A library in the provider's place that lacks the entry. No state.
extern "C" int export_something_else(const char *) {
    return 0;
}
