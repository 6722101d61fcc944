/*
 * Binding in real namespaces, each case in a process of its own that has left the machine's namespaces before.
 */
#include <arpa/inet.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>

#include "platform/nsbind.h"
#include "platform/rtctx.h"
#include "tests/support/jobs.h"

static bool write_file(const char *path, const std::string &text)
{
    const int fd = open(path, O_WRONLY | O_CREAT | O_CLOEXEC, 0644);
    const bool written = fd >= 0 && write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    close(fd);
    return written;
}

/* A /run of our own in which vrf7 is a network namespace and vrf8 is a file. false: the kernel refuses. */
static bool make_laboratory()
{
    const std::string uid = std::to_string(geteuid());
    if (unshare(CLONE_NEWNS | CLONE_NEWNET) != 0 &&
        (unshare(CLONE_NEWUSER | CLONE_NEWNS | CLONE_NEWNET) != 0 ||
         !write_file("/proc/self/uid_map", "0 " + uid + " 1")))
        return false;
    if (mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0 ||
        mount("lab", "/run", "tmpfs", 0, nullptr) != 0 || mkdir("/run/netns", 0755) != 0 ||
        !write_file("/run/netns/vrf7", "") || !write_file("/run/netns/vrf8", "no namespace") ||
        mkfifo("/run/netns/vrf9", 0644) != 0)
        return false;
    const int host = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    const bool bound = unshare(CLONE_NEWNET) == 0 &&
                       mount("/proc/self/ns/net", "/run/netns/vrf7", nullptr, MS_BIND, nullptr) == 0;
    const bool is_back = setns(host, CLONE_NEWNET) == 0;
    close(host);
    return bound && is_back;
}

static ino_t namespace_of(const char *path)
{
    struct stat status;
    return stat(path, &status) == 0 ? status.st_ino : 0;
}

struct binding {
    int result, error;
    ino_t name_space;
    bool gets_socket, reaches_loopback;
};

static int bind_and_report(void *vrf)
{
    binding found = {};
    errno = 0;
    found.result = nsbind_set_global_context(*static_cast<int32_t *>(vrf));
    found.error = errno;
    found.name_space = namespace_of("/proc/self/ns/net");
    struct sockaddr_in loopback = {};
    loopback.sin_family = AF_INET;
    loopback.sin_port = htons(53);
    loopback.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    found.gets_socket = fd >= 0;
    found.reaches_loopback =
        connect(fd, reinterpret_cast<struct sockaddr *>(&loopback), sizeof loopback) == 0;
    close(fd);
    spawnlet_done(&found, sizeof found);
    return 0;
}

static binding bind_in_a_job(int32_t vrf)
{
    const job_report report = run_job(bind_and_report, &vrf);
    binding found = {};
    EXPECT_EQ(report.code, 0u);
    EXPECT_EQ(report.buffer.size(), sizeof found);
    memcpy(&found, report.buffer.data(), std::min(sizeof found, report.buffer.size()));
    return found;
}

TEST(Vrf, BindsToItsNamespaceOrToNoneAtAll)
{
    if (!make_laboratory())
        GTEST_SKIP() << "no namespaces here: " << strerror(errno);
    const ino_t host = namespace_of("/proc/self/ns/net"), vrf7 = namespace_of("/run/netns/vrf7");
    ASSERT_TRUE(host != 0 && vrf7 != 0 && host != vrf7);

    EXPECT_NE(rtctx_api_init(), 0);
    EXPECT_EQ(bind_in_a_job(0).name_space, host);
    EXPECT_EQ(bind_in_a_job(0).result, 0);
    EXPECT_EQ(bind_in_a_job(7).name_space, vrf7);
    EXPECT_EQ(bind_in_a_job(7).result, 0);
    EXPECT_TRUE(bind_in_a_job(7).gets_socket);

    const struct {
        int32_t vrf;
        int error;
    } failures[] = {{1, ENOENT}, {8, EINVAL}, {9, EINVAL}, {-7, EINVAL}, {INT32_MIN, EINVAL}};
    for (const auto &c : failures) {
        const binding found = bind_in_a_job(c.vrf);
        EXPECT_EQ(found.result, -1) << c.vrf;
        EXPECT_EQ(found.error, c.error) << c.vrf;
        EXPECT_TRUE(found.name_space != host && found.name_space != vrf7) << c.vrf;
        EXPECT_FALSE(found.gets_socket || found.reaches_loopback) << c.vrf;
    }
    EXPECT_EQ(namespace_of("/proc/self/ns/net"), host);
}

TEST(Vrf, FailsClosedWithoutPrivilege)
{
    if (geteuid() == 0 && setresuid(65534, 65534, 65534) != 0)
        GTEST_SKIP() << "cannot drop privilege";
    const ino_t host = namespace_of("/proc/self/ns/net");
    int32_t vrf = 7;
    const job_report report = run_job(bind_and_report, &vrf);
    if (report.code == LINUX_JOB_NO_RESULT)
        return; /* no user namespaces: the job itself fails */
    ASSERT_EQ(report.buffer.size(), sizeof(binding));
    binding found;
    memcpy(&found, report.buffer.data(), sizeof found);
    EXPECT_EQ(found.result, -1);
    EXPECT_NE(found.name_space, host);
    EXPECT_FALSE(found.gets_socket || found.reaches_loopback);
}
