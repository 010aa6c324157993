// A provider library that claims success and provides nothing. No state.
extern "C" int export_tcpdump(const char *) {
    return 0;
}
