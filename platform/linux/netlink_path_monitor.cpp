#include "netlink_path_monitor.h"

#include "alternate_signal_stack.h"

#include <QThread>
#include <algorithm>
#include <cstring>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <map>
#include <net/if.h>
#include <poll.h>
#include <set>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

namespace tellwyn {

namespace {

// What the path consists of: the flags that matter of every interface, and every address.
struct PathState {
    std::map<int, unsigned> links;
    std::set<std::string> addresses;
};

int openRouteSocket() {
    const int fd = ::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0) {
        return -1;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = RTMGRP_LINK | RTMGRP_IPV4_IFADDR | RTMGRP_IPV6_IFADDR;
    if (::bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof local) < 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

// Asks for every current address, so that later announcements of known ones are not changes.
void requestAddressDump(int fd) {
    struct {
        nlmsghdr header;
        ifaddrmsg body;
    } request{};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETADDR;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.body.ifa_family = AF_UNSPEC;
    (void)::send(fd, &request, sizeof request, 0);
}

// The netlink macros cast in C style; these do the same arithmetic with checked sizes.
template <typename T> const T* payload(const nlmsghdr* header) {
    return reinterpret_cast<const T*>(reinterpret_cast<const char*>(header) + NLMSG_ALIGN(sizeof(nlmsghdr)));
}

std::string addressKey(const nlmsghdr* header) {
    const auto* message = payload<ifaddrmsg>(header);
    std::string key = std::to_string(message->ifa_index) + '/' + std::to_string(message->ifa_family) + '/' +
                      std::to_string(message->ifa_prefixlen) + '/';
    const size_t offset = NLMSG_ALIGN(sizeof(nlmsghdr)) + NLMSG_ALIGN(sizeof(ifaddrmsg));
    if (header->nlmsg_len < offset) {
        return key;
    }
    const char* cursor = reinterpret_cast<const char*>(header) + offset;
    size_t remaining = header->nlmsg_len - offset;
    while (remaining >= sizeof(rtattr)) {
        rtattr attribute{};
        std::memcpy(&attribute, cursor, sizeof attribute);
        if (attribute.rta_len < sizeof(rtattr) || attribute.rta_len > remaining) {
            break;
        }
        if (attribute.rta_type == IFA_ADDRESS || attribute.rta_type == IFA_LOCAL) {
            key.append(cursor + RTA_ALIGN(sizeof(rtattr)), attribute.rta_len - RTA_ALIGN(sizeof(rtattr)));
        }
        const size_t step = std::min<size_t>(RTA_ALIGN(attribute.rta_len), remaining);
        cursor += step;
        remaining -= step;
    }
    return key;
}

// Applies one kernel message; true when it changed the path.
bool apply(PathState& state, const nlmsghdr* header) {
    switch (header->nlmsg_type) {
    case RTM_NEWLINK:
    case RTM_DELLINK: {
        const auto* message = payload<ifinfomsg>(header);
        const unsigned flags = message->ifi_flags & (IFF_UP | IFF_RUNNING);
        if (header->nlmsg_type == RTM_DELLINK) {
            return state.links.erase(message->ifi_index) > 0;
        }
        const auto [it, inserted] = state.links.try_emplace(message->ifi_index, flags);
        const bool changed = inserted || it->second != flags;
        it->second = flags;
        return changed;
    }
    case RTM_NEWADDR:
        return state.addresses.insert(addressKey(header)).second;
    case RTM_DELADDR:
        return state.addresses.erase(addressKey(header)) > 0;
    default:
        return false;
    }
}

// Reads what is queued on the socket; true when any of it changed the path.
bool drain(int fd, PathState& state) {
    alignas(nlmsghdr) char buffer[16384];
    bool changed = false;
    for (;;) {
        const ssize_t received = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
        if (received <= 0) {
            // An overrun (ENOBUFS) lost messages: count it as a change to be safe.
            return changed || (received < 0 && errno == ENOBUFS);
        }
        size_t offset = 0;
        const auto length = static_cast<size_t>(received);
        while (length - offset >= sizeof(nlmsghdr)) {
            const auto* header = reinterpret_cast<const nlmsghdr*>(buffer + offset);
            if (header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > length - offset) {
                break;
            }
            changed = apply(state, header) || changed;
            offset += std::min<size_t>(NLMSG_ALIGN(header->nlmsg_len), length - offset);
        }
    }
}

void watch(int wakeFd, const std::function<void()>& onPathUpdate) {
    const int fd = openRouteSocket();
    PathState state;
    if (fd >= 0) {
        requestAddressDump(fd);
        pollfd dump{fd, POLLIN, 0};
        if (::poll(&dump, 1, 1000) > 0) {
            drain(fd, state);
        }
    }
    onPathUpdate(); // the first path seen
    if (fd < 0) {
        return; // nothing to watch; the first report is all there will be
    }
    pollfd fds[2] = {{fd, POLLIN, 0}, {wakeFd, POLLIN, 0}};
    while (::poll(fds, 2, -1) >= 0 || errno == EINTR) {
        if ((fds[1].revents & POLLIN) != 0) {
            break;
        }
        if ((fds[0].revents & POLLIN) != 0 && drain(fd, state)) {
            onPathUpdate();
        }
    }
    ::close(fd);
}

} // namespace

NetlinkPathMonitor::NetlinkPathMonitor(QString threadName)
    : m_threadName(std::move(threadName)), m_wakeFd(::eventfd(0, EFD_CLOEXEC)) {
}

NetlinkPathMonitor::~NetlinkPathMonitor() {
    if (m_thread) {
        const uint64_t one = 1;
        if (::write(m_wakeFd, &one, sizeof one) < 0) {
            qFatal("cannot wake the network path monitor");
        }
        m_thread->wait();
    }
    ::close(m_wakeFd);
}

void NetlinkPathMonitor::start(std::function<void()> onPathUpdate) {
    m_thread.reset(QThread::create([wakeFd = m_wakeFd, onPathUpdate = std::move(onPathUpdate)] {
        ensureAlternateSignalStack();
        watch(wakeFd, onPathUpdate);
    }));
    m_thread->setObjectName(m_threadName);
    m_thread->start();
}

} // namespace tellwyn
