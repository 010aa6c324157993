// bugreport: the state of a handset as one text on standard output: a header, then sections with what its programs say.
// Done within a second; the property desk.bugreport.seconds makes it last as long as on a device. No state.
#include <cutils/properties.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

static constexpr char kRule[] = "========================================================";
static constexpr double kSecondsMax = 3600;  // that the slow mode may last

struct section {
    const char *title;
    const char *argv[4];
};

static const section kSections[] = {
    {"UPTIME", {"uptime", nullptr}},           {"MEMORY INFO", {"cat", "/proc/meminfo", nullptr}},
    {"PROCESSES", {"ps", "-A", nullptr}},      {"FILESYSTEMS & FREE SPACE", {"df", nullptr}},
    {"SYSTEM LOG", {"logcat", "-d", nullptr}}, {"SYSTEM PROPERTIES", {"getprop", nullptr}},
};
static constexpr size_t kSectionCount = sizeof kSections / sizeof kSections[0];

static void print_property(const char *title, const char *name, const char *unset) {
    char value[PROPERTY_VALUE_MAX];
    property_get(name, value, unset);
    printf("%s: %s\n", title, value);
}

static void print_header() {
    const time_t now = time(nullptr);
    struct tm local = {};
    char stamp[32];
    localtime_r(&now, &local);
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    printf("%s\n== dumpstate: %s\n%s\n\n", kRule, stamp, kRule);
    print_property("Build", "ro.build.display.id", "(unknown)");
    char fingerprint[PROPERTY_VALUE_MAX];
    property_get("ro.build.fingerprint", fingerprint, "unknown");
    printf("Build fingerprint: '%s'\n", fingerprint);
    print_property("Bootloader", "ro.bootloader", "(unknown)");
    print_property("Radio", "gsm.version.baseband", "(unknown)");
    printf("\n");
}

static double seconds_now() {
    struct timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

// Runs a program with the report as its standard output and error.
static void run(const char *const *argv) {
    fflush(stdout);
    const pid_t child = fork();
    if (child == -1) {
        printf("*** fork: %s\n", strerror(errno));
        return;
    }
    if (child == 0) {
        dup2(STDOUT_FILENO, STDERR_FILENO);
        execvp(argv[0], const_cast<char *const *>(argv));
        dprintf(STDOUT_FILENO, "*** exec(%s): %s\n", argv[0], strerror(errno));
        _exit(127);
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    if (status != 0) {
        printf("*** %s: %s %d\n", argv[0], WIFEXITED(status) ? "exit code" : "signal",
               WIFEXITED(status) ? WEXITSTATUS(status) : WTERMSIG(status));
    }
}

static void print_section(const section &of) {
    const double start = seconds_now();
    printf("------ %s (", of.title);
    for (size_t i = 0; of.argv[i] != nullptr; i++) {
        printf("%s%s", i == 0 ? "" : " ", of.argv[i]);
    }
    printf(") ------\n");
    run(of.argv);
    printf("------ %.3fs was the duration of '%s' ------\n\n", seconds_now() - start, of.title);
}

static void pause_for(double seconds) {
    struct timespec left = {};
    left.tv_sec = static_cast<time_t>(seconds);
    left.tv_nsec = static_cast<long>((seconds - static_cast<double>(left.tv_sec)) * 1e9);
    while (nanosleep(&left, &left) == -1 && errno == EINTR) {
    }
}

static double wanted_seconds() {
    char value[PROPERTY_VALUE_MAX];
    property_get("desk.bugreport.seconds", value, "0");
    const double seconds = strtod(value, nullptr);
    if (!(seconds > 0)) {
        return 0;
    }
    return seconds < kSecondsMax ? seconds : kSecondsMax;
}

int main(int argc, char **) {
    if (argc > 1) {
        fprintf(stderr, "usage: bugreport\n");
        return 1;
    }
    fprintf(stderr,
            "=============================================================================\n"
            "WARNING: flat bugreports are deprecated, use adb bugreport <zip_file> instead\n"
            "=============================================================================\n\n\n");
    const double pause = wanted_seconds() / kSectionCount;
    print_header();
    for (const section &each : kSections) {
        print_section(each);
        pause_for(pause);
    }
    printf("%s\n== dumpstate: done\n%s\n", kRule, kRule);
    return fflush(stdout) == 0 && ferror(stdout) == 0 ? 0 : 1;
}
