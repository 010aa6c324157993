// A provider library without the entry function. No state.
extern "C" int export_something_else(const char *) {
    return 0;
}
