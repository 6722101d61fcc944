/*
 * Captures what is sent, and on which interface, while jobs are bound to VRF 5 of the laboratory: a VRF device where
 * the kernel has them, else a veth. Before each job, a process that only binds its socket to the device asks the same
 * question, which shows whether the question would cross into another VRF.
 */
#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>

#include "platform/nsbind.h"
#include "tests/support/laboratory.h"

static bool has_vrf_device()
{
    return shell("ip link show type vrf | grep -q vrf5");
}

/* Network 7 has addresses of the default VRF, network 8 is behind its routes, network 6 behind those of VRF 5. */
static void build_networks(bool is_vrf)
{
    const std::string own = is_vrf ? "in" : "vrf5";
    ASSERT_TRUE(shell("for d in out in; do ip link add $d arp off type veth peer name peer$d && "
                      "ip link set $d up && ip link set peer$d up; done"));
    ASSERT_TRUE(
        !is_vrf ||
        shell("ip link set in master vrf5; ip address add 2001:db8:9::5 dev vrf5 nodad; for v in 4 6; do "
              "ip -$v route del unreachable default metric 4278198272 table 1005; done"));
    ASSERT_TRUE(shell("ip address add 10.7.0.53 dev lo; ip address add 2001:db8:7::53 dev lo; "
                      "ip address add 10.8.0.1/24 dev out; ip address add 2001:db8:8::1/64 dev out nodad; "
                      "ip link set " +
                      own + " arp off; echo 0 > /proc/sys/net/ipv6/conf/" + own +
                      "/disable_ipv6; ip address add 10.6.0.1/24 dev " + own +
                      "; ip address add 2001:db8:6::1/64 nodad dev " + own));
}

struct question {
    const char *address;
    const char *device;             /* for IP_PKTINFO, or nullptr */
    bool crosses_vrf, crosses_veth; /* if the socket is only bound to the device */
    bool is_own;                    /* belongs to VRF 5: must send a packet, unless it crosses */
    int type = SOCK_DGRAM;
};

static constexpr question questions_asked[] = {
    {"127.0.0.1", nullptr, true, false, false},
    {"127.0.0.53", nullptr, true, false, false},
    {"::1", nullptr, true, false, false},
    {"10.7.0.53", nullptr, true, false, false},
    {"2001:db8:7::53", nullptr, true, false, false},
    {"10.8.0.53", nullptr, true, false, false},
    {"2001:db8:8::53", nullptr, true, false, false},
    {"10.8.0.53", "out", true, true, false},
    {"127.0.0.1", "lo", true, true, false},
    {"10.6.0.1", nullptr, false, true, true},
    {"10.6.0.53", nullptr, false, false, true},
    {"2001:db8:6::53", nullptr, false, false, true},
};

static socklen_t address_of(const question *q, int port, struct sockaddr_storage *address)
{
    auto *four = reinterpret_cast<struct sockaddr_in *>(address);
    auto *six = reinterpret_cast<struct sockaddr_in6 *>(address);
    *address = {};
    four->sin_port = htons(static_cast<uint16_t>(port));
    four->sin_family = AF_INET;
    if (inet_pton(AF_INET, q->address, &four->sin_addr) == 1)
        return sizeof *four;
    six->sin6_family = AF_INET6;
    return inet_pton(AF_INET6, q->address, &six->sin6_addr) == 1 ? sizeof *six : 0;
}

static void send_datagram(int fd, const question *q, struct sockaddr_storage *address, socklen_t size)
{
    struct iovec text = {.iov_base = const_cast<char *>("question"), .iov_len = 8};
    alignas(struct cmsghdr) char control[CMSG_SPACE(sizeof(struct in_pktinfo))] = {};
    struct msghdr message = {};
    message.msg_name = address;
    message.msg_namelen = size;
    message.msg_iov = &text;
    message.msg_iovlen = 1;
    if (q->device != nullptr) {
        message.msg_control = control;
        message.msg_controllen = sizeof control;
        *CMSG_FIRSTHDR(&message) = {.cmsg_len = CMSG_LEN(sizeof(struct in_pktinfo)),
                                    .cmsg_level = IPPROTO_IP,
                                    .cmsg_type = IP_PKTINFO};
        struct in_pktinfo by = {};
        by.ipi_ifindex = static_cast<int>(if_nametoindex(q->device));
        memcpy(CMSG_DATA(CMSG_FIRSTHDR(&message)), &by, sizeof by);
    }
    sendmsg(fd, &message, 0);
}

/* Ignores errors: only packets that are sent count. */
static void ask(const question *q, const char *bind_to)
{
    struct sockaddr_storage address;
    const socklen_t size = address_of(q, 53, &address);
    const int fd = socket(address.ss_family, q->type | SOCK_NONBLOCK, 0);
    if (bind_to != nullptr)
        setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, bind_to, 5);
    if (q->type == SOCK_DGRAM)
        send_datagram(fd, q, &address, size);
    else
        connect(fd, reinterpret_cast<struct sockaddr *>(&address), size);
    close(fd);
}

static int ask_in_vrf(void *q)
{
    const int result = nsbind_set_global_context(5);
    ask(static_cast<const question *>(q), nullptr);
    return result;
}

/* Captures the packets of every interface. */
class capture
{
  public:
    capture() : fd(socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK, htons(ETH_P_ALL))) {}
    ~capture()
    {
        close(fd);
    }

    /* The interfaces on which packets to port 53 have been sent since the last call. */
    std::set<std::string> taken()
    {
        std::set<std::string> found;
        unsigned char packet[64];
        struct sockaddr_ll at = {};
        for (socklen_t size = sizeof at;
             recvfrom(fd, packet, sizeof packet, 0, reinterpret_cast<struct sockaddr *>(&at), &size) > 0;) {
            const size_t header = packet[0] >> 4 == 6 ? 40 : (packet[0] & 15) * 4u;
            char name[IF_NAMESIZE] = "?";
            if (at.sll_pkttype == PACKET_OUTGOING && packet[header + 2] == 0 && packet[header + 3] == 53)
                found.insert(if_indextoname(static_cast<unsigned>(at.sll_ifindex), name));
        }
        return found;
    }

  private:
    const int fd;
};

using interfaces = std::set<std::string>;

static interfaces of_other_vrfs(interfaces seen)
{
    for (const char *own : {"vrf5", "port5", "in"})
        seen.erase(own);
    return seen;
}

static void expect_confined(capture &wires, question q, bool crosses)
{
    SCOPED_TRACE(testing::Message() << q.address << " via "
                                    << (q.device != nullptr ? q.device : "any interface")
                                    << (q.type == SOCK_STREAM ? ", TCP" : ""));
    EXPECT_TRUE(in_its_own_process([&] { return ask(&q, "vrf5"), true; }));
    EXPECT_EQ(!of_other_vrfs(wires.taken()).empty(), crosses);
    EXPECT_EQ(run_job(ask_in_vrf, &q).result, 0);
    const interfaces seen = wires.taken();
    EXPECT_EQ(of_other_vrfs(seen), interfaces());
    EXPECT_TRUE(!seen.empty() || crosses || !q.is_own);
}

static void expect_all_confined(capture &wires, bool is_vrf)
{
    for (question q : questions_asked) {
        const bool crosses = is_vrf ? q.crosses_vrf : q.crosses_veth;
        expect_confined(wires, q, crosses);
        q.type = SOCK_STREAM;
        if (q.device == nullptr)
            expect_confined(wires, q, crosses);
    }
}

TEST(Crossing, NoPacketOfAJobLeavesByAnInterfaceOfAnotherVrf)
{
    const bool is_vrf = has_vrf_device();
    capture wires;
    build_networks(is_vrf);
    expect_all_confined(wires, is_vrf);
    if (is_vrf && shell("for p in udp tcp; do echo 1 > /proc/sys/net/ipv4/${p}_l3mdev_accept; done"))
        expect_all_confined(wires, is_vrf);
}

/* A job that keeps running while other jobs start and end. */
static struct {
    int asked, answered; /* counters */
    question q;
} *const long_job = shared<std::remove_pointer_t<decltype(long_job)>>();

static int ask_on_request(void *)
{
    const int result = nsbind_set_global_context(5);
    for (long_job->answered = 1;; poll(nullptr, 0, 1)) {
        if (__atomic_load_n(&long_job->asked, __ATOMIC_ACQUIRE) == long_job->answered)
            continue;
        ask(&long_job->q, nullptr);
        __atomic_add_fetch(&long_job->answered, 1, __ATOMIC_RELEASE);
    }
    return result;
}

static interfaces sent_by_long_job(capture &wires)
{
    const int asked = __atomic_add_fetch(&long_job->asked, 1, __ATOMIC_RELEASE);
    EXPECT_TRUE(eventually([&] { return __atomic_load_n(&long_job->answered, __ATOMIC_ACQUIRE) == asked; }));
    return wires.taken();
}

TEST(Crossing, MemberChangesTakeEffectAtTheNextJob)
{
    if (!has_vrf_device())
        GTEST_SKIP() << "this kernel has no VRF devices";
    const interfaces none, late = {"late"};
    question q = {"10.5.0.53", nullptr, false, false, true};
    capture wires;
    build_networks(true);
    long_job->q = q;
    long_job->asked = 1;
    start_job(ask_on_request);
    ASSERT_TRUE(eventually([] { return __atomic_load_n(&long_job->answered, __ATOMIC_ACQUIRE) == 1; }));

    ASSERT_TRUE(shell("ip link add late arp off type veth peer name peerlate && ip link set peerlate up && "
                      "ip link set late up master vrf5 && ip address add 10.5.0.1/24 dev late"));
    EXPECT_EQ(sent_by_long_job(wires), none);
    EXPECT_EQ(run_job(ask_in_vrf, &q).result, 0);
    EXPECT_EQ(wires.taken(), late);
    EXPECT_EQ(sent_by_long_job(wires), late);

    ASSERT_TRUE(shell("ip link set late nomaster"));
    EXPECT_EQ(in_its_own_process([&] { return ask(&q, "vrf5"), true; }), true);
    EXPECT_EQ(wires.taken(), late) << "a socket bound to the device does not cross";
    EXPECT_EQ(run_job(ask_in_vrf, &q).result, 0);
    EXPECT_EQ(wires.taken(), none);
    EXPECT_EQ(sent_by_long_job(wires), none);
}
