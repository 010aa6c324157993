// A handset that a real adb reaches: the handset's daemon on a port of the machine, and an adb server of the test's own.
#ifndef TESTS_HOST_ADB_H
#define TESTS_HOST_ADB_H

#include "tests/host/support.h"

// Whether adb is installed on this machine.
bool adb_is_installed();

// The cable between this machine and one handset. One at a time: the environment of the process names its server.
class adb_cable {
  public:
    ~adb_cable();
    // Starts the handset's daemon and a server, and connects them.
    void plug_in(desk *handset);
    // The daemon is killed. Returns when the server has noticed.
    void pull();
    // After pull: a new daemon on the same port, run as this user, and a server connected to it.
    void plug_in_again(uid_t uid = 0);
    // Kills the server at once.
    void kill_server();
    // Runs adb with these arguments and returns what it printed.
    host_result adb(const words &arguments, const std::string &input = "") const;

    std::string serial;  // "127.0.0.1:PORT"

  private:
    void start_server();
    void start_daemon(uid_t uid);
    void connect();

    desk *handset = nullptr;
    desk_child daemon;
    pid_t server = -1;
    int listening = -1;  // the daemon's socket
    temporary_dir home;  // of the server: keys, its socket, lock files
};

// A handset with its agent, and sa-host reaching it through adb. Every test of it begins with boot_adb.
class AdbTest : public HostTest {
  protected:
    void SetUp() override;
    void boot_adb(const desk_options &options = quiet_options());
    words inside(const words &arguments) const override;

    adb_cable cable;
};

#endif
