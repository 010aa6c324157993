// Extra network links, for captures that shall see more than the loopback: made through route netlink. No state.
#include <arpa/inet.h>
#include <errno.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "init.h"

struct link_request {
    struct nlmsghdr header;
    struct ifinfomsg info;
    char attributes[256];
};

static struct rtattr *add_attribute(link_request *request, int type, const void *data, size_t size) {
    size_t at = NLMSG_ALIGN(request->header.nlmsg_len);
    auto *attribute = reinterpret_cast<struct rtattr *>(reinterpret_cast<char *>(request) + at);
    attribute->rta_type = static_cast<unsigned short>(type);
    attribute->rta_len = static_cast<unsigned short>(RTA_LENGTH(size));
    if (size > 0) {
        memcpy(RTA_DATA(attribute), data, size);
    }
    request->header.nlmsg_len = static_cast<uint32_t>(at + RTA_ALIGN(attribute->rta_len));
    return attribute;
}

// The attribute reaches to the end of what the request holds by now.
static void close_attribute(link_request *request, struct rtattr *attribute) {
    char *end = reinterpret_cast<char *>(request) + request->header.nlmsg_len;
    attribute->rta_len = static_cast<unsigned short>(end - reinterpret_cast<char *>(attribute));
}

static void add_peer(link_request *request) {
    struct rtattr *data = add_attribute(request, IFLA_INFO_DATA, nullptr, 0);
    struct ifinfomsg peer = {};
    struct rtattr *info = add_attribute(request, VETH_INFO_PEER, &peer, sizeof(peer));
    add_attribute(request, IFLA_IFNAME, "desk1", sizeof("desk1"));
    close_attribute(request, info);
    close_attribute(request, data);
}

static int exchange(link_request *request) {
    int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        return errno;
    }
    struct {
        struct nlmsghdr header;
        struct nlmsgerr error;
        char rest[512];
    } answer = {};
    int error = EIO;
    if (send(fd, request, request->header.nlmsg_len, 0) >= 0 && recv(fd, &answer, sizeof(answer), 0) > 0 &&
        answer.header.nlmsg_type == NLMSG_ERROR) {
        error = -answer.error.error;
    }
    close(fd);
    return error;
}

static int make_link(const std::string &kind) {
    link_request request = {};
    request.header.nlmsg_len = NLMSG_LENGTH(sizeof(request.info));
    request.header.nlmsg_type = RTM_NEWLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_CREATE | NLM_F_EXCL;
    add_attribute(&request, IFLA_IFNAME, "desk0", sizeof("desk0"));
    struct rtattr *info = add_attribute(&request, IFLA_LINKINFO, nullptr, 0);
    add_attribute(&request, IFLA_INFO_KIND, kind.c_str(), kind.size());
    if (kind == "veth") {
        add_peer(&request);
    }
    close_attribute(&request, info);
    return exchange(&request);
}

static bool raise_link(const char *name, const char *address) {
    int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    struct ifreq request = {};
    strcpy(request.ifr_name, name);
    bool raised = true;
    if (address != nullptr) {
        struct sockaddr_in in = {};
        in.sin_family = AF_INET;
        inet_pton(AF_INET, address, &in.sin_addr);
        memcpy(&request.ifr_addr, &in, sizeof(in));
        raised = ioctl(fd, SIOCSIFADDR, &request) == 0;
        inet_pton(AF_INET, "255.255.255.0", &in.sin_addr);
        memcpy(&request.ifr_netmask, &in, sizeof(in));
        raised = raised && ioctl(fd, SIOCSIFNETMASK, &request) == 0;
    }
    request.ifr_flags = IFF_UP | IFF_RUNNING;
    raised = raised && ioctl(fd, SIOCSIFFLAGS, &request) == 0;
    close(fd);
    return raised;
}

std::string links_up(const std::string &kind) {
    if (!raise_link("lo", nullptr)) {
        return std::string("lo: ") + strerror(errno);
    }
    if (kind.empty()) {
        return "";
    }
    int error = make_link(kind);
    if (error != 0) {
        return kind + ": " + strerror(error);
    }
    bool raised = raise_link("desk0", "10.0.77.1") && (kind != "veth" || raise_link("desk1", "10.0.78.1"));
    return raised ? "" : std::string("desk0: ") + strerror(errno);
}
