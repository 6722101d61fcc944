/*
 * Captures what is sent, and on which interface, while jobs are bound to VRF 6: a device of the same kind as VRF 5 of
 * the laboratory, a VRF device where the kernel has them, else a veth. Before each job, a process that only binds its
 * socket to the device asks the same question, which shows whether the question would cross into another VRF.
 */
#include <linux/if_packet.h>
#include <net/ethernet.h>
#include <net/if.h>

#include "platform/nsbind.h"
#include "tests/support/laboratory.h"

using interfaces = std::set<std::string>;

struct question {
    const char *address;
    bool crosses_vrf, crosses_veth; /* if the socket is only bound to the device */
    const char *device = "vrf6";    /* of another VRF: a job binds its socket to that itself */
    bool is_own = false;            /* belongs to VRF 6: must send a packet, unless it crosses */
    int type = SOCK_DGRAM;
};

static constexpr question questions_asked[] = {
    {"127.0.0.53", true, false},
    {"::1", true, false},
    {"10.8.0.53", true, false},
    {"2001:db8:8::53", true, false},
    {"10.8.0.53", true, true, "out"},
    {"10.6.0.1", false, true, "vrf6", true},
    {"10.6.0.53", false, false, "vrf6", true},
    {"2001:db8:6::53", false, false, "vrf6", true},
};

/* Ignores errors: only packets that are sent count. */
static void ask(const question *q, const char *bind_to)
{
    struct addrinfo hints = {}, *to = nullptr;
    hints.ai_flags = AI_NUMERICHOST;
    hints.ai_socktype = q->type;
    getaddrinfo(q->address, "53", &hints, &to);
    const int fd = socket(to->ai_family, q->type | SOCK_NONBLOCK, 0);
    if (bind_to != nullptr)
        setsockopt(fd, SOL_SOCKET, SO_BINDTODEVICE, bind_to, static_cast<socklen_t>(strlen(bind_to)));
    connect(fd, to->ai_addr, to->ai_addrlen);
    send(fd, "question", 8, MSG_NOSIGNAL);
    freeaddrinfo(to);
    close(fd);
}

static int ask_in_vrf(void *q)
{
    const int result = nsbind_set_global_context(6);
    const char *device = static_cast<const question *>(q)->device;
    ask(static_cast<const question *>(q), strcmp(device, "vrf6") != 0 ? device : nullptr);
    return result;
}

static int ask_bound(void *q)
{
    ask(static_cast<const question *>(q), static_cast<const question *>(q)->device);
    return 0;
}

class Crossing : public testing::Test
{
  protected:
    /*
     * Network 8 is behind the routes of the default VRF, network 6 behind those of VRF 6. The VRF device lacks the
     * usual default route of a VRF, so that the kernel continues with the main table.
     */
    void SetUp() override
    {
        const std::string own = is_vrf ? "in" : "vrf6";
        ASSERT_TRUE(
            shell("for d in vrf6 out in; do ip link add $d arp off type veth peer name peer$d && "
                  "ip link set $d up && ip link set peer$d up; done; "
                  "ip address add 10.8.0.1/24 dev out; ip address add 2001:db8:8::1/64 dev out nodad"));
        ASSERT_TRUE(
            !is_vrf ||
            shell(
                "ip link del vrf6; ip link add vrf6 type vrf table 1006 && "
                "ip link set vrf6 up && ip link set in master vrf6 && ip address add 2001:db8:9::5 dev vrf6 nodad"));
        ASSERT_TRUE(shell("ip address add 10.6.0.1/24 dev " + own +
                          "; ip address add 2001:db8:6::1/64 nodad dev " + own));
    }

    void TearDown() override
    {
        EXPECT_TRUE(shell("ip link del late 2> /dev/null; "
                          "ip link del vrf6 && ip link del out && ip link del in"));
        close(wires);
    }

    /* The interfaces on which packets to port 53 have been sent since the last call. */
    interfaces used()
    {
        interfaces found;
        unsigned char packet[64];
        struct sockaddr_ll at = {};
        for (socklen_t size = sizeof at; recvfrom(wires, packet, sizeof packet, 0,
                                                  reinterpret_cast<struct sockaddr *>(&at), &size) > 0;) {
            const size_t header = packet[0] >> 4 == 6 ? 40 : (packet[0] & 15) * 4u;
            char name[IF_NAMESIZE] = "?";
            if (at.sll_pkttype == PACKET_OUTGOING && packet[header + 2] == 0 && packet[header + 3] == 53)
                found.insert(if_indextoname(static_cast<unsigned>(at.sll_ifindex), name));
        }
        return found;
    }

    const bool is_vrf = shell("ip link show type vrf | grep -q vrf5");
    const int wires = socket(AF_PACKET, SOCK_DGRAM | SOCK_NONBLOCK, htons(ETH_P_ALL));
};

TEST_F(Crossing, NoPacketOfAJobLeavesByAnInterfaceOfAnotherVrf)
{
    const auto is_foreign = [](const std::string &name) { return name != "vrf6" && name != "in"; };
    for (const std::string accept : {"0", "1"}) {
        EXPECT_TRUE(
            shell("for p in udp tcp; do echo " + accept + " > /proc/sys/net/ipv4/${p}_l3mdev_accept; done") ||
            !is_vrf);
        for (question q : questions_asked)
            for (const int type : {SOCK_DGRAM, SOCK_STREAM}) {
                SCOPED_TRACE(testing::Message() << q.address << " by " << q.device << ", type " << type);
                const bool crosses = is_vrf ? q.crosses_vrf : q.crosses_veth;
                q.type = type;
                run_job(ask_bound, &q);
                interfaces seen = used();
                EXPECT_EQ(std::any_of(seen.begin(), seen.end(), is_foreign), crosses);
                EXPECT_EQ(run_job(ask_in_vrf, &q).result, 0);
                seen = used();
                EXPECT_FALSE(std::any_of(seen.begin(), seen.end(), is_foreign));
                EXPECT_TRUE(!seen.empty() || crosses || !q.is_own);
            }
    }
}

TEST_F(Crossing, MemberChangesTakeEffectAtTheNextJob)
{
    if (!is_vrf)
        GTEST_SKIP() << "this kernel has no VRF devices";
    const interfaces none, late = {"late"};
    question q = {"10.5.0.53", false, false};
    const auto sent_by_job = [&](spawnlet_body_t body) {
        EXPECT_EQ(run_job(body, &q).result, 0);
        return used();
    };
    EXPECT_EQ(sent_by_job(ask_in_vrf), none);
    ASSERT_TRUE(shell("ip link add late arp off type veth peer name peerlate && ip link set peerlate up && "
                      "ip link set late up master vrf6 && ip address add 10.5.0.1/24 dev late"));
    EXPECT_EQ(sent_by_job(ask_in_vrf), late);
    ASSERT_TRUE(shell("ip link set late nomaster"));
    EXPECT_EQ(sent_by_job(ask_bound), late) << "a socket bound to the device does not cross";
    EXPECT_EQ(sent_by_job(ask_in_vrf), none);
}
