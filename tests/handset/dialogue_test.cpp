// A long dialogue with one agent: all commands in a mixed order, with answers predicted by a model of the handset.
#include <algorithm>
#include <random>
#include <set>

#include "tests/support/commands.h"

// A request, all of its bytes, and the whole answer that must follow.
struct turn {
    std::string request;
    std::string answer;
};

// What the host knows of the handset after everything it has said so far.
struct model {
    int kernel = 0;
    int dmesg = 0;
    int packets = 0;
    std::string settings;                                     // content of the settings file
    lines slots = lines(10);                                  // of the auto-start list
    std::set<std::string> running = {"zr-qel-sa", "kettle"};  // what a query finds
    std::string said;                                         // content of /data/said
    int number = 0;                                           // of the last line in it
    int saves = 0;
    int full = 0;  // times that the auto-start list had no room
    // Readers of kernel messages: the live ones, the one that the switch ends, the one that a deletion ends.
    std::set<int> readers = {1};
    int newest = 1;
    int collector = 1;
    int last = 1;
};

static turn told(const std::string &text, bool is_ok) {
    return {"AT SA" + text + "\r", is_ok ? kOk : kError};
}

static turn shown(const std::string &text, const std::string &name, int value) {
    return {"AT SA" + text + "\r", "\r\n" + name + ": " + std::to_string(value) + "\r\n\r\nOK\r\n"};
}

// ---- what can be said ----

static turn attention(model *, unsigned dice) {
    static const turn kTurns[] = {{"AT\r", kOk}, {"at\r", kOk}, {"SA+SYSTEM=\"exit 1\" AT\r", kOk}, {"AT", kError}};
    return kTurns[dice % 4];
}

static turn unknown(model *, unsigned dice) {
    static const char *const kRequests[] = {"SA+NOPE=1\r",         "SA+KERNEL_LOG=?\r",      "SA+SAVE_LOG?\r",
                                            "sa+DMESG_LOG?\r",     "SA+SYSTEM=\"true\r",     "SA+DELETE_LOG",
                                            "SA+QUERY_SERVICE?\r", "SA +START_SERVICES=?\r", "\r"};
    return {kRequests[dice % 9], kError};
}

static turn query(model *m, unsigned dice) {
    static const char *const kNames[] = {"zr-elog", "kettle", "zr-qel-sa", "nobody", "zr-auto-test", "%s%n"};
    const std::string name = kNames[dice % 6];
    return shown("+QUERY_SERVICE=\"" + name + "\"", "QUERY_SERVICE", static_cast<int>(m->running.count(name)));
}

// Starts and stops that are done, or refused, without a look at what becomes of them.
static turn control_at_once(model *m, unsigned dice) {
    const bool is_elog_there = m->running.count("zr-elog") != 0;
    switch (dice % 5) {
        case 0: return told("+START_SERVICE=\"kettle\"", true);
        case 1: return told("+START_SERVICE=\"nobody\"", false);
        case 2: return told("+STOP_SERVICE=\"nobody\"", true);
        case 3: return told("+STOP_SERVICE=zr-qel-sa", false);
        default:
            return is_elog_there ? told("+START_SERVICE=\"zr-elog\"", true) : told("+STOP_SERVICE=\"zr-elog\"", true);
    }
}

static turn auto_start(model *m, unsigned dice) {
    static const unsigned kActions[] = {0, 1, 1, 1, 2, 3};  // more that enable, so that the list fills up
    const std::string name = "service-" + std::to_string(dice % 14);
    const unsigned action = kActions[dice / 14 % 6];
    const auto slot = std::find(m->slots.begin(), m->slots.end(), name);
    const bool is_listed = slot != m->slots.end();
    const std::string text = "+AUTO_START_SERVICE=\"" + name + "\"," + std::to_string(action);
    if (action > 2) {
        return told(text, false);
    }
    if (action == 2) {
        return shown(text, "AUTO_START_SERVICE", is_listed ? 1 : 0);
    }
    if (action == 0 && is_listed) {
        slot->clear();
    }
    if (action == 1 && !is_listed) {
        const auto free_slot = std::find(m->slots.begin(), m->slots.end(), "");
        if (free_slot == m->slots.end()) {
            m->full++;
            return told(text, false);
        }
        *free_slot = name;
    }
    return told(text, true);
}

static turn system_command(model *m, unsigned dice) {
    if (dice % 5 == 0) {
        return told("+SYSTEM=true", false);
    }
    const std::string line = std::to_string(++m->number) + "  50%s; \\o/ \xc3\xa9";
    m->said += line + "\n";
    return told("+SYSTEM=\"print -r -- '" + line + "' >> /data/said\"", true);
}

static void write_settings(model *m) {
    m->settings = {static_cast<char>(m->kernel), ' ', static_cast<char>(m->dmesg), ' ', static_cast<char>(m->packets)};
}

static int start_reader(model *m) {
    m->newest = ++m->last;
    m->readers.insert(m->newest);
    return m->newest;
}

static turn kernel_log(model *m, unsigned dice) {
    const int value = static_cast<int>(dice % 4);
    if (value == 3) {
        return shown("+KERNEL_LOG?", "KERNEL_LOG", m->kernel);
    }
    if (value < 2 && value != m->kernel) {
        m->kernel = value;
        if (value == 1) {
            start_reader(m);
        } else {
            m->readers.erase(m->newest);
        }
        write_settings(m);
    }
    return told("+kernel_log=" + std::to_string(value), value < 2);
}

static turn dmesg_log(model *m, unsigned dice) {
    const int value = static_cast<int>(dice % 4);
    if (value == 3) {
        return shown("+DMESG_LOG?", "DMESG_LOG", m->dmesg);
    }
    if (value < 2 && value != m->dmesg) {
        m->dmesg = value;
        write_settings(m);
    }
    return told("+DMESG_LOG=" + std::to_string(value), value < 2);
}

// Never off again: that would end the agent.
static turn packets_log(model *m, unsigned dice) {
    if (m->packets == 0 && dice % 3 == 0) {
        return told("+DATA_PACKETS_LOG=0", true);
    }
    if (dice % 3 == 1) {
        return told("+DATA_PACKETS_LOG=2", false);
    }
    m->packets = 1;
    return told("+DATA_PACKETS_LOG=1", true);
}

static turn delete_log(model *m, unsigned) {
    m->readers.erase(m->collector);
    m->collector = start_reader(m);
    return told("+DELETE_LOG", true);
}

static turn save_log(model *m, unsigned) {
    m->saves++;
    return told("+SAVE_LOG", true);
}

// ---- the ones that take their second ----

static turn start_elog(model *m) {
    m->running.insert("zr-elog");
    return told("+START_SERVICE=\"zr-elog\"", true);
}

static turn stop_elog(model *m) {
    m->running.erase("zr-elog");
    return told("+STOP_SERVICE=\"zr-elog\"", true);
}

static turn failing_command(model *m) {
    for (int run = 0; run < 5; run++) {
        m->said += "failing\n";
    }
    return told("+SYSTEM=\"print failing >> /data/said; exit 3\"", false);
}

// 240 turns, always the same ones. The slow ones have their fixed places; the rest is drawn, each kind with its weight.
static std::vector<turn> whole_talk(model *m) {
    using kind = turn (*)(model *, unsigned);
    static const std::vector<kind> kKinds = {
        attention,       attention,  unknown,    unknown,    query,      query,       query,          control_at_once,
        control_at_once, auto_start, auto_start, auto_start, auto_start, auto_start,  system_command, system_command,
        system_command,  kernel_log, kernel_log, dmesg_log,  dmesg_log,  packets_log, delete_log};
    std::minstd_rand dice(20);
    std::vector<turn> talk;
    while (talk.size() < 240) {
        switch (talk.size()) {
            case 40: talk.push_back(start_elog(m)); break;
            case 90: talk.push_back(failing_command(m)); break;
            case 140: talk.push_back(stop_elog(m)); break;
            case 20:
            case 120:
            case 220: talk.push_back(save_log(m, 0)); break;
            default: {
                const kind chosen = kKinds[dice() % kKinds.size()];
                talk.push_back(chosen(m, static_cast<unsigned>(dice() >> 4)));
            }
        }
    }
    return talk;
}

// The auto-start list as its file holds it.
static std::string image_of(const lines &slots) {
    std::string image;
    for (std::string slot : slots) {
        slot.resize(40);
        image += slot;
    }
    return image;
}

class Dialogue : public CommandTest {};

TEST_F(Dialogue, OfManyTurnsIsAnsweredTurnByTurn) {
    desk_options options = with_log_property(log_property({{3, "3,64"}, {4, "2,64"}}));
    add_quick_programs(&options);
    options.prepare = [](desk *handset) { return put_service_program(handset, "kettle"); };
    ASSERT_NO_FATAL_FAILURE(boot(options));
    start_program("kettle");
    const pid_t agent = desk_agent_pid(h);
    const size_t descriptors_before = descriptors(agent).size();

    model m;
    const std::vector<turn> talk = whole_talk(&m);
    for (size_t i = 0; i < talk.size(); i++) {
        ASSERT_EQ(ask(talk[i].request), talk[i].answer) << "turn " << i << ": " << talk[i].request;
    }

    ASSERT_TRUE(desk_until([&] { return rests(file_lines(), "sa_handle_read_cmd_loop req[").size() == talk.size(); }));
    const lines served = rests(file_lines(), "sa_handle_read_cmd_loop req[");
    for (size_t i = 0; i < talk.size(); i++) {
        EXPECT_EQ(served[i], talk[i].request + "] ret_val[0]");
    }
    EXPECT_EQ(desk_agent_pid(h), agent);
    EXPECT_EQ(desk_file_text(h, "/data/said"), m.said);
    EXPECT_EQ(desk_file_text(h, "/data/zr-qel-sa.set"), m.settings);
    EXPECT_EQ(desk_file_text(h, "/data/zr-qel-sa/auto-start.lst"), image_of(m.slots));
    EXPECT_EQ(rests(file_lines(), "handle_sa_save_log_set ret_val[0]").size(), static_cast<size_t>(m.saves));
    // Beside the main thread and the channel's: the readers, and one that waits for logcat.
    const size_t readers = m.readers.size();
    EXPECT_TRUE(desk_until([&] { return threads(agent) == static_cast<int>(2 + readers + 1); }))
        << threads(agent) << " threads, " << readers << " readers";
    EXPECT_TRUE(desk_until([&] { return descriptors(agent).size() == descriptors_before + 2 * (readers - 1); }));
    EXPECT_EQ(children_of(agent).size(), 1u) << "logcat alone";
}

// The talk is worth its name only as long as it holds everything.
TEST(DialogueModel, HoldsEveryCommandSeveralTimes) {
    model m;
    const std::vector<turn> talk = whole_talk(&m);
    EXPECT_GE(talk.size(), 200u);
    for (const std::string &name :
         lines{"START_SERVICE", "STOP_SERVICE", "QUERY_SERVICE", "AUTO_START_SERVICE", "SAVE_LOG", "SYSTEM",
               "KERNEL_LOG", "DMESG_LOG", "DATA_PACKETS_LOG", "DELETE_LOG"}) {
        for (const char *answer : {"OK", "ERROR"}) {
            const auto fits = [&](const turn &t) {
                std::string upper = t.request;
                std::transform(upper.begin(), upper.end(), upper.begin(),
                               [](unsigned char c) { return static_cast<char>(toupper(c)); });
                return upper.find("+" + name) != std::string::npos && t.answer.find(answer) != std::string::npos;
            };
            EXPECT_GE(std::count_if(talk.begin(), talk.end(), fits), answer[0] == 'O' ? 2 : 1) << name << " " << answer;
        }
    }
    EXPECT_GT(m.full, 0);
    EXPECT_GT(m.newest, 10) << "readers of kernel messages that came and went";
}
