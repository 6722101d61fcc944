/*
 * vrf_links.cpp: asks the kernel by netlink which interfaces belong to a device. /sys is not used: it may show
 * another network namespace, or not be mounted.
 */
#include <errno.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <string.h>
#include <sys/socket.h>
#include <unistd.h>

#include "platform/linux/vrf_binding.h"
#include "platform/linux/vrf_device.h"

struct link_request {
    struct nlmsghdr header;
    struct ifinfomsg link;
    struct rtattr attribute;
    uint32_t value;
};
static_assert(sizeof(link_request) == 40); /* no padding */

enum class dump { GOES_ON, ENDED };

/* As large as the largest block of messages that the kernel sends at once during a dump. */
alignas(struct nlmsghdr) static char answer[32768];

/* A series of attributes: those of a link, or those nested in another attribute. */
struct attributes {
    const struct rtattr *first;
    int length;
};

/* Returns nullptr if the series has no attribute of this type. */
static const struct rtattr *find(attributes series, unsigned short type)
{
    const struct rtattr *attribute = series.first;
    for (int left = series.length; RTA_OK(attribute, left); attribute = RTA_NEXT(attribute, left))
        if ((attribute->rta_type & NLA_TYPE_MASK) == type)
            return attribute;
    return nullptr;
}

static attributes nested_in(const struct rtattr *attribute)
{
    return {.first = static_cast<const struct rtattr *>(RTA_DATA(attribute)),
            .length = static_cast<int>(RTA_PAYLOAD(attribute))};
}

/*
 * Ports of a bridge or a bond are not members. They have a master too, but carry no addresses: a socket that is
 * bound to the bridge reaches all of them.
 */
static bool is_member(attributes series, uint32_t device)
{
    constexpr char vrf[] = "vrf";
    const struct rtattr *master = find(series, IFLA_MASTER);
    if (master == nullptr || RTA_PAYLOAD(master) != sizeof device ||
        memcmp(RTA_DATA(master), &device, sizeof device) != 0)
        return false;
    const struct rtattr *details = find(series, IFLA_LINKINFO);
    const struct rtattr *kind = details != nullptr ? find(nested_in(details), IFLA_INFO_SLAVE_KIND) : nullptr;
    return kind != nullptr && RTA_PAYLOAD(kind) == sizeof vrf && memcmp(RTA_DATA(kind), vrf, sizeof vrf) == 0;
}

static int read_message(const struct nlmsghdr *message, vrf_links *links, dump *progress)
{
    if ((message->nlmsg_flags & NLM_F_DUMP_INTR) != 0)
        return EAGAIN; /* an interface changed: the answer may be incomplete */
    if (message->nlmsg_type == NLMSG_DONE)
        *progress = dump::ENDED;
    if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR)
        return message->nlmsg_len >= NLMSG_LENGTH(sizeof(int)) /* the int is 0 or a negative errno */
                   ? -*static_cast<const int *>(NLMSG_DATA(message))
                   : EBADMSG;
    if (message->nlmsg_type != RTM_NEWLINK || message->nlmsg_len < NLMSG_LENGTH(sizeof(struct ifinfomsg)))
        return 0;
    const auto *link = static_cast<const struct ifinfomsg *>(NLMSG_DATA(message));
    if (!is_member({.first = IFLA_RTA(link), .length = static_cast<int>(IFLA_PAYLOAD(message))},
                   links->index[0]))
        return 0;
    if (links->count == VRF_LINKS_MAX)
        return E2BIG;
    links->index[links->count++] = static_cast<uint32_t>(link->ifi_index);
    return 0;
}

static int read_messages(size_t size, vrf_links *links, dump *progress)
{
    int error = 0;
    for (size_t at = 0; error == 0 && *progress == dump::GOES_ON && at < size;) {
        const auto *message = reinterpret_cast<const struct nlmsghdr *>(answer + at);
        if (!NLMSG_OK(message, size - at))
            return EBADMSG;
        error = read_message(message, links, progress);
        at += NLMSG_ALIGN(message->nlmsg_len);
    }
    return error;
}

/* Accepts only messages that come from the kernel and were not truncated. */
static int receive(int fd, size_t *size)
{
    struct sockaddr_nl sender = {};
    struct iovec room = {.iov_base = answer, .iov_len = sizeof answer};
    struct msghdr message = {};
    message.msg_name = &sender;
    message.msg_namelen = sizeof sender;
    message.msg_iov = &room;
    message.msg_iovlen = 1;
    const ssize_t got = recvmsg(fd, &message, 0);
    if (got <= 0)
        return got < 0 ? errno : EBADMSG;
    if (sender.nl_pid != 0 || (message.msg_flags & MSG_TRUNC) != 0)
        return EBADMSG;
    *size = static_cast<size_t>(got);
    return 0;
}

static int request_links(int fd, vrf_links *links)
{
    link_request request = {};
    request.header.nlmsg_len = sizeof request;
    request.header.nlmsg_type = RTM_GETLINK;
    request.header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
    request.attribute.rta_len = RTA_LENGTH(sizeof request.value);
    request.attribute.rta_type = IFLA_MASTER; /* a filter: the kernel need not list all other links */
    request.value = links->index[0];
    const ssize_t sent = write(fd, &request, sizeof request);
    int error = sent == sizeof request ? 0 : sent < 0 ? errno : EBADMSG;
    for (dump progress = dump::GOES_ON; error == 0 && progress == dump::GOES_ON;) {
        size_t size = 0;
        error = receive(fd, &size);
        if (error == 0)
            error = read_messages(size, links, &progress);
    }
    return error;
}

/* Each try has its own socket: closing it discards the rest of an answer that was not read to its end. */
static int try_to_read(unsigned device, vrf_links *links)
{
    links->count = 1;
    links->index[0] = device;
    const int fd = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (fd < 0)
        return errno;
    const int error = request_links(fd, links);
    close(fd);
    return error;
}

int vrf_read_links(unsigned device, vrf_links *links)
{
    int error = EAGAIN;
    for (int tries = 0; tries < 10 && error == EAGAIN; tries++)
        error = try_to_read(device, links);
    return error != 0 ? vrf_failed(error, "members of device %u", device) : 0;
}
