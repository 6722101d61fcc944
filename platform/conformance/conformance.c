/*
 * conformance.c: tests whether a platform layer keeps the contract that the library relies on. Each check runs in
 * its own process, so a check that crashes or hangs counts as broken. The output is TAP: one line, "ok" or "not
 * ok", per check.
 *
 *     conformance_PORT [TEXT]      run all checks, or those whose line has TEXT. Exit status 1: a check is broken
 */
#define _GNU_SOURCE
#include "platform/conformance/conformance.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include "platform/evtrack.h"
#include "platform/nsbind.h"
#include "platform/rtctx.h"
#include "platform/spawnlet.h"

#define REQUEST_SIZE 564 /* bytes of the argument that the library's jobs get */
#define RECORD_SIZE 1676 /* bytes of the record that they hand back */
#define JOBS_AT_ONCE 10  /* background jobs that the library runs at a time */
#define LATE_MS 5000     /* a job with a timeout of 1 s must end before this */
#ifndef CHECK_SECONDS
#define CHECK_SECONDS 20 /* a check that takes longer counts as hanging */
#endif
#ifndef SOON_MS
#define SOON_MS 15000 /* the longest time that an expected event takes on a busy machine */
#endif

/* Exit status of a check's process, unless the platform ends the process in another way. */
enum { BROKEN = 81, KEPT, SKIPPED };

static int is_broken;

#define EXPECT(condition) expect((condition) != 0, #condition, __LINE__)

static void expect(int holds, const char *condition, int line)
{
    if (holds)
        return;
    printf("# line %d: %s\n", line, condition);
    is_broken = 1;
}

/* Bodies. In a child they change a copy of the host's memory, except for shared memory. */

typedef struct {
    uint32_t size;  /* to hand back */
    int32_t result; /* to return */
} task;

#define OTHER 77 /* a task with this result hands back a different record */

static unsigned char pattern(size_t i)
{
    return (unsigned char)(i * 7 + i / 251);
}

static int is_pattern(const void *bytes, size_t size)
{
    for (size_t i = 0; i < size; i++)
        if (((const unsigned char *)bytes)[i] != pattern(i))
            return 0;
    return 1;
}

/* Overwrites the buffer after it has been handed back: the platform must have copied or sent the bytes by then. */
static int do_task(void *arg)
{
    const task *t = arg;
    unsigned char bytes[RECORD_SIZE];
    for (size_t i = 0; i < sizeof bytes; i++)
        bytes[i] = (unsigned char)(t->result == OTHER ? ~pattern(i) : pattern(i));
    if (t->size > 0 && spawnlet_done(bytes, t->size) != 0)
        return 99;
    explicit_bzero(bytes, sizeof bytes);
    return t->result;
}

static int find_pattern(void *arg)
{
    return is_pattern(arg, REQUEST_SIZE) ? 1 : 2;
}

static int kill_itself(void *unused)
{
    (void)unused;
    return raise(SIGKILL);
}

static int leave(void *unused)
{
    (void)unused;
    _exit(0);
}

static int hand_back_and_leave(void *arg)
{
    do_task(arg);
    _exit(0);
}

static int wait_for_ever(void *unused)
{
    (void)unused;
    while (pause() < 0)
        ;
    return 0;
}

static int take_a_while(void *unused)
{
    (void)unused;
    usleep(1500000);
    return 8;
}

static int show_pid_and_wait(void *pid)
{
    *(int *)pid = (int)getpid();
    return wait_for_ever(NULL);
}

/* Leaves a process behind that keeps every descriptor of the child open until the flag is set. */
static int leave_process_behind(void *flag)
{
    if (fork() == 0) {
        while (*(volatile int *)flag == 0)
            usleep(1000);
        _exit(0);
    }
    return 9;
}

static int wait_for_flag(void *flag)
{
    while (*(volatile int *)flag == 0)
        usleep(1000);
    return 5;
}

static int set_flag(void *flag)
{
    *(int *)flag = 1;
    return 0;
}

static int report_parent(void *flag)
{
    *(int *)flag = (int)getppid();
    return (int)getpid() & 0xffff;
}

static int has_hosts_signals(void *unused)
{
    sigset_t mask;
    struct sigaction action;
    (void)unused;
    sigprocmask(SIG_BLOCK, NULL, &mask);
    sigaction(SIGUSR1, NULL, &action);
    return action.sa_handler != SIG_DFL || sigismember(&mask, SIGUSR2) == 1;
}

static FILE *hosts_log;

static int write_to_log(void *text)
{
    return fputs(text, hosts_log) < 0 || fflush(hosts_log) != 0;
}

static int bind_to(void *vrf)
{
    return nsbind_set_global_context(*(int32_t *)vrf) == 0 ? 0 : 1;
}

static int reaches(const char *address)
{
    struct sockaddr_in to = {.sin_family = AF_INET, .sin_port = htons(53)};
    inet_pton(AF_INET, address, &to.sin_addr);
    const int fd = socket(AF_INET, SOCK_DGRAM, 0);
    const int connected = fd >= 0 && connect(fd, (struct sockaddr *)&to, sizeof to) == 0;
    close(fd);
    return connected;
}

static int reach_after_binding_to(void *vrf)
{
    nsbind_set_global_context(*(int32_t *)vrf);
    return reaches("127.0.0.1") || reaches("192.0.2.1") ? 1 : 0;
}

static int write_text(void *unused)
{
    (void)unused;
    return fputs("body ", stdout) < 0;
}

static int read_letter(void *unused)
{
    char letter = '-';
    (void)unused;
    return read(0, &letter, 1) == 1 ? letter : 0;
}

/* Running the bodies */

typedef struct {
    uint32_t code;
    void *ret_info;
    uint32_t size;
    int32_t result;
} outcome;

static job_options options_for(int32_t timeout_secs)
{
    return (job_options){
        .job_tag = 4711, .record_size = sizeof(job_options), .timeout_secs = timeout_secs, .option_flag = 1};
}

static outcome run_on(spawnlet_body_t body, void *arg, int32_t timeout_secs, FILE *in, FILE *out)
{
    const job_options options = options_for(timeout_secs);
    outcome o = {0};
    o.code = spawnlet_fork_fp(body, arg, &o.ret_info, &o.size, &o.result, &options, in, out, out);
    return o;
}

static outcome run(spawnlet_body_t body, void *arg)
{
    return run_on(body, arg, 3, NULL, NULL);
}

#define NO_HANDLE 0xfeedbeef

static uint32_t start(spawnlet_body_t body, void *arg, int32_t timeout_secs)
{
    const job_options options = options_for(timeout_secs);
    uint32_t handle = NO_HANDLE;
    EXPECT(spawnlet_fork_fp_async(body, arg, 1, &options, stdin, stdout, stderr, &handle) == 0);
    EXPECT(handle != NO_HANDLE);
    return handle;
}

static uint32_t the_queue(void)
{
    const uint32_t queue = the_port.queue_create();
    EXPECT(spawnlet_register_async_q(queue) == 0);
    return queue;
}

static conformance_completion next(uint32_t queue)
{
    conformance_completion done = {0};
    EXPECT(the_port.queue_next(queue, &done, SOON_MS) == 1);
    return done;
}

static int is_empty(uint32_t queue)
{
    conformance_completion done;
    return the_port.queue_next(queue, &done, 0) == 0;
}

static int *shared_flag(void)
{
    int *flag = mmap(NULL, sizeof *flag, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (flag == MAP_FAILED)
        abort();
    return flag;
}

static void do_nothing_job(void)
{
    task nothing = {0, 0};
    EXPECT(run(do_task, &nothing).code == 0);
}

/* Returns a body that exceeds its timeout: it waits forever, or the port pretends that each job takes 60 s. */
static spawnlet_body_t too_long(void)
{
    if (the_port.jobs_take == NULL)
        return wait_for_ever;
    the_port.jobs_take(60);
    return do_task;
}

static int open_descriptors(void)
{
    int count = 0;
    DIR *folder = opendir("/proc/self/fd");
    while (folder != NULL && readdir(folder) != NULL)
        count++;
    if (folder != NULL)
        closedir(folder);
    return count;
}

static int children(void)
{
    int count = 0, character;
    FILE *list = fopen("/proc/thread-self/children", "re"); /* a number and a blank for each child */
    while (list != NULL && (character = fgetc(list)) != EOF)
        count += character == ' ';
    if (list != NULL)
        fclose(list);
    return count;
}

static long now_ms(void)
{
    struct timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

/* Waits until a process has ended, for at most SOON_MS. A process that has not been reaped yet counts as ended. */
static int process_ends(int pid)
{
    char path[64];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    for (int ms = 0; ms < SOON_MS; ms += 10) {
        char line[256] = "";
        FILE *stat = fopen(path, "re");
        if (stat == NULL)
            return 1;
        const char *name_end = fgets(line, sizeof line, stat) != NULL ? strrchr(line, ')') : NULL;
        fclose(stat);
        if (name_end != NULL && strchr("ZX", name_end[2]) != NULL) /* its state: dead, but not reaped */
            return 1;
        usleep(10000);
    }
    return 0;
}

static void collect_all(int number)
{
    const int error = errno;
    (void)number;
    while (waitpid(-1, NULL, WNOHANG) > 0)
        ;
    errno = error;
}

/* Blocking jobs */

static void result_comes_back(void)
{
    for (int32_t result = -7; result <= 7; result += 7) {
        task t = {0, result};
        const outcome o = run(do_task, &t);
        EXPECT(o.code == 0 && o.result == result);
    }
}

static void record_comes_back(void)
{
    for (uint32_t size = 1; size <= RECORD_SIZE; size += RECORD_SIZE - 1) {
        task t = {size, 0};
        const outcome o = run(do_task, &t);
        EXPECT(o.code == 0 && o.result == 0 && o.size == size);
        EXPECT(o.ret_info != NULL && is_pattern(o.ret_info, o.size < size ? o.size : size));
    }
}

static void nothing_comes_back(void)
{
    task t = {0, 0};
    const outcome o = run(do_task, &t);
    EXPECT(o.code == 0 && o.size == 0);
}

static void record_is_not_delivered_again(void)
{
    task full = {RECORD_SIZE, 0}, empty = {0, 0};
    run(do_task, &full);
    EXPECT(run(do_task, &empty).size == 0);
}

static void buffer_outlives_background_jobs(void)
{
    task t = {RECORD_SIZE, 0}, other = {RECORD_SIZE, OTHER};
    const uint32_t queue = the_queue();
    const outcome o = run(do_task, &t);
    start(do_task, &other, 3);
    next(queue);
    EXPECT(o.size == RECORD_SIZE && is_pattern(o.ret_info, RECORD_SIZE));
}

static void argument_is_seen(void)
{
    unsigned char request[REQUEST_SIZE];
    for (size_t i = 0; i < sizeof request; i++)
        request[i] = pattern(i);
    EXPECT(run(find_pattern, request).result == 1);
}

static void zero_means_no_timeout(void)
{
    task t = {0, 4};
    const outcome o = run_on(do_task, &t, 0, NULL, NULL);
    EXPECT(o.code == 0 && o.result == 4);
}

static void too_long_is_a_code(void)
{
    task t = {0, 0};
    const long start_ms = now_ms();
    EXPECT(run_on(too_long(), &t, 1, NULL, NULL).code != 0);
    EXPECT(now_ms() - start_ms < LATE_MS);
}

static void ignore(int number)
{
    (void)number;
}

static void signals_do_not_prolong_it(void)
{
    const struct sigaction handled = {.sa_handler = ignore};
    const struct itimerval often = {{0, 100000}, {0, 100000}};
    sigaction(SIGALRM, &handled, NULL);
    setitimer(ITIMER_REAL, &often, NULL);
    too_long_is_a_code();
}

static void enough_time_is_enough(void)
{
    if (the_port.jobs_take != NULL)
        the_port.jobs_take(2);
    const outcome o = run_on(take_a_while, NULL, 3, NULL, NULL);
    EXPECT(o.code == 0 && o.result == 8);
}

static void child_ends_at_its_timeout(void)
{
    int *pid = shared_flag();
    EXPECT(run_on(show_pid_and_wait, pid, 1, NULL, NULL).code != 0);
    EXPECT(*pid != 0 && process_ends(*pid));
    *pid = 0;
    const uint32_t queue = the_queue();
    start(show_pid_and_wait, pid, 1);
    EXPECT(next(queue).syserr != 0);
    EXPECT(*pid != 0 && process_ends(*pid));
}

static void child_ends_with_its_host(void)
{
    int *pid = shared_flag();
    const pid_t host = fork();
    if (host == 0) {
        the_queue();
        start(show_pid_and_wait, pid, 0);
        while (*(volatile int *)pid == 0)
            usleep(1000);
        _exit(0);
    }
    waitpid(host, NULL, 0);
    EXPECT(*pid != 0 && process_ends(*pid));
}

static void result_comes_before_end_of_stream(void)
{
    int *flag = shared_flag();
    const outcome o = run(leave_process_behind, flag);
    EXPECT(o.code == 0 && o.result == 9);
    *flag = 1;
}

static void killed_is_a_code(void)
{
    EXPECT(run(kill_itself, NULL).code != 0);
}

static void no_result_is_a_code(void)
{
    EXPECT(run(leave, NULL).code != 0);
}

static void record_without_result_is_a_code(void)
{
    task t = {RECORD_SIZE, 0};
    EXPECT(run(hand_back_and_leave, &t).code != 0);
}

static void next_job_works(void)
{
    run(kill_itself, NULL);
    run_on(wait_for_ever, NULL, 1, NULL, NULL);
    record_comes_back();
}

static void child_is_the_hosts(void)
{
    int *parent = shared_flag();
    const outcome o = run(report_parent, parent);
    EXPECT(*parent == (int)getpid() && o.result != ((int)getpid() & 0xffff));
}

static void memory_is_the_hosts(void)
{
    int flag = 0;
    EXPECT(run(set_flag, &flag).code == 0 && flag == 0);
}

static void childs_signals_are_its_own(void)
{
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_BLOCK, &blocked, NULL);
    signal(SIGUSR1, collect_all);
    const uint32_t queue = the_queue();
    EXPECT(run(has_hosts_signals, NULL).result == 0);
    start(has_hosts_signals, NULL, 0);
    EXPECT(next(queue).ret_syserr == 0);
}

/* In a child, the library continues to write to the log that it opened in the host. */
static void log_stays_open(void)
{
    char waited_for[] = "one ", background[] = "two ", text[20] = "";
    hosts_log = tmpfile();
    const uint32_t queue = the_queue();
    EXPECT(run(write_to_log, waited_for).result == 0);
    start(write_to_log, background, 0);
    EXPECT(next(queue).ret_syserr == 0);
    rewind(hosts_log);
    EXPECT(fgets(text, sizeof text, hosts_log) != NULL && strcmp(text, "one two ") == 0);
}

static int *exit_flag;

static void at_exit(void)
{
    *exit_flag = 1;
}

static void exit_handlers_are_the_hosts(void)
{
    exit_flag = shared_flag();
    atexit(at_exit);
    do_nothing_job();
    const int ran = *exit_flag;
    EXPECT(ran == 0);
}

static void output_comes_out_once(void)
{
    char text[100] = "";
    FILE *out = tmpfile();
    fputs("host ", out);
    EXPECT(run_on(write_text, NULL, 3, NULL, out).code == 0);
    fflush(out);
    rewind(out);
    EXPECT(fgets(text, sizeof text, out) != NULL && strlen(text) == strlen("host body "));
    EXPECT(strstr(text, "host ") != NULL && strstr(text, "body ") != NULL);
    fclose(out);
}

static void input_is_read(void)
{
    FILE *in = tmpfile();
    fputs("x", in);
    rewind(in);
    EXPECT(run_on(read_letter, NULL, 3, in, NULL).result == 'x');
    EXPECT(run(read_letter, NULL).result == 0);
    fclose(in);
}

static void no_streams_are_needed(void)
{
    for (int fd = 0; fd < 3; fd++)
        close(fd);
    task t = {RECORD_SIZE, 3};
    const outcome o = run(do_task, &t);
    is_broken = is_broken || o.code != 0 || o.result != 3 || o.size != RECORD_SIZE;
}

/* The host's own process */

static void jobs_of_both_kinds(void)
{
    task t = {RECORD_SIZE, 0};
    const uint32_t queue = the_queue();
    for (int i = 0; i < 10; i++) {
        start(do_task, &t, 3);
        EXPECT(run(do_task, &t).code == 0);
        const conformance_completion done = next(queue);
        EXPECT(done.syserr == 0 && done.ret_info_size == RECORD_SIZE);
    }
}

static void sigchld_may_be_default(void)
{
    signal(SIGCHLD, SIG_DFL);
    jobs_of_both_kinds();
}

static void sigchld_may_be_ignored(void)
{
    signal(SIGCHLD, SIG_IGN);
    jobs_of_both_kinds();
}

static void sigchld_may_collect_all(void)
{
    signal(SIGCHLD, collect_all);
    jobs_of_both_kinds();
}

static void signals_are_as_before(void)
{
    struct sigaction before[32] = {0}, after = {0};
    const struct itimerval later = {{0, 0}, {1000, 0}};
    struct itimerval left;
    sigset_t blocked, mask;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    sigprocmask(SIG_SETMASK, &blocked, NULL);
    setitimer(ITIMER_REAL, &later, NULL);
    signal(SIGCHLD, collect_all);
    signal(SIGPIPE, SIG_IGN);
    for (int number = 1; number < 32; number++)
        sigaction(number, NULL, &before[number]);
    jobs_of_both_kinds();
    sigprocmask(SIG_BLOCK, NULL, &mask);
    for (int number = 1; number < 32; number++) {
        sigaction(number, NULL, &after);
        EXPECT(after.sa_handler == before[number].sa_handler && after.sa_flags == before[number].sa_flags);
        EXPECT(sigismember(&mask, number) == (number == SIGUSR2));
    }
    getitimer(ITIMER_REAL, &left);
    EXPECT(left.it_value.tv_sec > 900);
}

static void other_children_are_left_alone(void)
{
    int status = -1;
    const pid_t quick = fork();
    if (quick == 0)
        _exit(7);
    siginfo_t exited;
    waitid(P_PID, (id_t)quick, &exited, WEXITED | WNOWAIT);
    const pid_t slow = fork();
    if (slow == 0)
        wait_for_ever(NULL);
    jobs_of_both_kinds();
    EXPECT(waitpid(quick, &status, 0) == quick && WIFEXITED(status) && WEXITSTATUS(status) == 7);
    EXPECT(waitpid(slow, &status, WNOHANG) == 0);
    kill(slow, SIGKILL);
}

/*
 * A service may keep the last job's descriptor and child until its next call. It may also keep a connection of its
 * own open from its first job on, so descriptors are counted only after that.
 */
static void nothing_is_left_behind(void)
{
    task t = {RECORD_SIZE, 0};
    const uint32_t queue = the_queue();
    start(do_task, &t, 0);
    next(queue);
    do_nothing_job();
    const int descriptors = open_descriptors();
    for (int i = 0; i < 50 && !is_broken; i++) {
        do_nothing_job();
        start(do_task, &t, 0);
        next(queue);
    }
    for (int tries = 0; tries < 500 && !is_broken && (open_descriptors() > descriptors + 1 || children() > 1);
         tries++)
        do_nothing_job();
    EXPECT(open_descriptors() <= descriptors + 1);
    EXPECT(children() <= 1);
}

static void hosts_pipes_are_its_own(void)
{
    int ends[2], *flag = shared_flag();
    char byte;
    EXPECT(pipe(ends) == 0);
    const uint32_t queue = the_queue();
    start(wait_for_flag, flag, 0);
    close(ends[1]);
    EXPECT(read(ends[0], &byte, 1) == 0); /* blocks forever if the child has inherited the other end */
    *flag = 1;
    next(queue);
}

/* Jobs in the background */

static void ends_in_its_completion(void)
{
    task t = {RECORD_SIZE, -3};
    const uint32_t queue = the_queue();
    EXPECT(is_empty(queue));
    const uint32_t handle = start(do_task, &t, 0);
    const conformance_completion done = next(queue);
    EXPECT(done.handle == handle && done.syserr == 0 && done.ret_syserr == -3);
    EXPECT(done.ret_info_size == RECORD_SIZE && is_pattern(done.ret_info, RECORD_SIZE));
    EXPECT(is_empty(queue));
}

static void completion_may_be_without_record(void)
{
    task t = {0, 0};
    const uint32_t queue = the_queue();
    start(do_task, &t, 0);
    const conformance_completion done = next(queue);
    EXPECT(done.syserr == 0 && done.ret_info_size == 0);
}

static void handle_may_lie_in_the_argument(void)
{
    struct {
        task work;
        uint32_t handle;
    } request = {{1, 6}, 0};
    const job_options options = options_for(0);
    const uint32_t queue = the_queue();
    EXPECT(spawnlet_fork_fp_async(do_task, &request, 1, &options, NULL, NULL, NULL, &request.handle) == 0);
    const conformance_completion done = next(queue);
    EXPECT(done.handle == request.handle && done.ret_syserr == 6);
}

static void start_does_not_wait(void)
{
    int *flag = shared_flag();
    const uint32_t queue = the_queue();
    start(wait_for_flag, flag, 0);
    *flag = 1;
    EXPECT(next(queue).ret_syserr == 5);
}

static void as_many_as_the_library_starts(void)
{
    task tasks[JOBS_AT_ONCE];
    uint32_t handles[JOBS_AT_ONCE];
    int seen[JOBS_AT_ONCE] = {0};
    const uint32_t queue = the_queue();
    for (int i = 0; i < JOBS_AT_ONCE; i++) {
        tasks[i] = (task){RECORD_SIZE, i};
        handles[i] = start(do_task, &tasks[i], 0);
    }
    do_nothing_job(); /* a blocking job runs beside them */
    for (int i = 0; i < JOBS_AT_ONCE; i++) {
        const conformance_completion done = next(queue);
        for (int j = 0; j < JOBS_AT_ONCE; j++)
            seen[j] += done.handle == handles[j] && done.syserr == 0 && done.ret_syserr == j;
    }
    for (int i = 0; i < JOBS_AT_ONCE; i++)
        EXPECT(seen[i] == 1);
    EXPECT(is_empty(queue));
}

static void waiting_takes_no_completion(void)
{
    task background = {0, 1}, waited_for = {0, 2};
    const uint32_t queue = the_queue();
    start(do_task, &background, 0);
    EXPECT(run(do_task, &waited_for).result == 2);
    EXPECT(next(queue).ret_syserr == 1);
}

static void completions_buffer_outlives_starts(void)
{
    task t = {RECORD_SIZE, 0}, other = {RECORD_SIZE, OTHER};
    const uint32_t queue = the_queue();
    start(do_task, &t, 0);
    const conformance_completion done = next(queue);
    start(do_task, &other, 0);
    run(do_task, &other);
    EXPECT(done.ret_info_size == RECORD_SIZE && is_pattern(done.ret_info, RECORD_SIZE));
}

static void killed_is_a_completion(void)
{
    const uint32_t queue = the_queue(), handle = start(kill_itself, NULL, 0);
    const conformance_completion done = next(queue);
    EXPECT(done.handle == handle && done.syserr != 0);
    EXPECT(is_empty(queue));
}

/* If a failed job brought a record, the library would store it. */
static void failed_job_has_no_record(void)
{
    task t = {RECORD_SIZE, 0};
    const uint32_t queue = the_queue();
    start(hand_back_and_leave, &t, 0);
    const conformance_completion done = next(queue);
    EXPECT(done.syserr != 0 && done.ret_info_size == 0 && done.ret_syserr == 0);
}

static void start_may_come_before_the_queue(void)
{
    task t = {RECORD_SIZE, 0};
    const uint32_t handle = start(do_task, &t, 0);
    const conformance_completion done = next(the_queue());
    EXPECT(done.handle == handle && done.ret_info_size == RECORD_SIZE);
}

static void too_long_is_a_completion(void)
{
    task t = {0, 0};
    const uint32_t queue = the_queue(), handle = start(too_long(), &t, 1);
    const conformance_completion done = next(queue);
    EXPECT(done.handle == handle && done.syserr != 0);
    EXPECT(is_empty(queue));
}

static void completions_come_without_sigchld(void)
{
    task t = {RECORD_SIZE, 0};
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGCHLD);
    sigprocmask(SIG_BLOCK, &blocked, NULL);
    const uint32_t queue = the_queue();
    start(do_task, &t, 0);
    EXPECT(next(queue).ret_info_size == RECORD_SIZE);
}

/* Codes, routing context, VRFs, trace */

static void every_code_has_a_text(void)
{
    char copy[256];
    const char *text = errcode2str(1);
    snprintf(copy, sizeof copy, "%s", text != NULL ? text : "");
    for (uint32_t code = 0; code < 0x1000; code++)
        EXPECT(errcode2str(code) != NULL && errcode2str(code)[0] != '\0');
    EXPECT(errcode2str(UINT32_MAX) != NULL && errcode2str(UINT32_MAX)[0] != '\0');
    EXPECT(text != NULL && strcmp(text, copy) == 0); /* later calls do not overwrite earlier texts */
}

static void routing_context_opens_and_closes(void)
{
    rtctx_api_close();
    for (int i = 0; i < 3; i++) {
        EXPECT(rtctx_api_init() != 0);
        rtctx_api_close();
    }
    rtctx_api_close();
    EXPECT(rtctx_api_init() != 0);
    do_nothing_job();
}

static int32_t host_vrf = 0, no_vrf = INT32_MAX, negative_vrf = -1;

static void vrf_0_binds(void)
{
    const outcome o = run(bind_to, &host_vrf);
    EXPECT(o.code == 0 && o.result == 0);
}

static void missing_vrf_does_not_bind(void)
{
    int32_t *const missing[] = {&no_vrf, &negative_vrf};
    for (int i = 0; i < 2; i++) {
        const outcome o = run(bind_to, missing[i]);
        EXPECT(o.code != 0 || o.result == 1); /* the platform may end a child that cannot be bound */
    }
}

static void unbound_reaches_nothing(void)
{
    if (!reaches("127.0.0.1"))
        _exit(SKIPPED);
    const outcome o = run(reach_after_binding_to, &no_vrf);
    EXPECT(o.code != 0 || o.result == 0);
    EXPECT(run(reach_after_binding_to, &host_vrf).result == 1); /* otherwise the check proves nothing */
}

static void binding_stays_in_its_job(void)
{
    const int reached = reaches("127.0.0.1");
    run(bind_to, &no_vrf);
    EXPECT(reaches("127.0.0.1") == reached);
    EXPECT(run(bind_to, &host_vrf).result == 0);
}

static void trace_takes_every_message(void)
{
    struct {
        uint32_t subtype;
        char text[512];
    } record = {101, ""};
    for (int on = 0; on < 2; on++) {
        for (uint32_t length = 0; length < sizeof record.text; length += sizeof record.text - 1) {
            memset(record.text, 'x', length);
            evtrack_hist_event(0x730000, 4 + length + 1, &record);
        }
        dbgemit(1, &evtrack_dbg_modname, 0, "%s", record.text);
        dbgemit(1, &evtrack_dbg_modname, 0, "%s(%d): %u\n", "name", 1, 2u);
        dbgemit(1, &evtrack_dbg_modname, 0, "%s", "");
        the_port.trace_on();
    }
    EXPECT(evtrack_hist_event_subtype_check(0x730000, 101) == 0);
    EXPECT(evtrack_chk_int(101, 0, 0, 1) != 0);
}

static void trace_never_waits(void)
{
    int ends[2];
    const int standard_error = dup(2);
    EXPECT(pipe(ends) == 0 && dup2(ends[1], 2) == 2);
    the_port.trace_on();
    for (int i = 0; i < 10000; i++) {
        dbgemit(1, &evtrack_dbg_modname, 0, "%s\n", "more than a pipe holds");
        evtrack_hist_event(0x730000, 8, "\x65\0\0\0abc");
    }
    dup2(standard_error, 2);
}

/* The list of checks */

static const struct {
    const char *text;
    void (*check)(void);
    int needs_processes;
} checks[] = {
    {"what a body returns comes back", result_comes_back, 0},
    {"what it hands back comes back, byte for byte", record_comes_back, 0},
    {"a body that hands nothing back leaves a size of 0", nothing_comes_back, 0},
    {"what one body handed back is not the next one's", record_is_not_delivered_again, 0},
    {"the buffer outlives jobs in the background", buffer_outlives_background_jobs, 0},
    {"a body sees its argument", argument_is_seen, 0},
    {"a timeout of 0 does not end the job at once", zero_means_no_timeout, 0},
    {"a body that takes too long is a code, in time", too_long_is_a_code, 0},
    {"signals do not make it take longer", signals_do_not_prolong_it, 0},
    {"a body that takes less time than it may is not cut short", enough_time_is_enough, 0},
    {"a child ends at its timeout", child_ends_at_its_timeout, 1},
    {"a child ends with its host", child_ends_with_its_host, 1},
    {"a result is not kept waiting by who stays behind", result_comes_before_end_of_stream, 1},
    {"a child that is killed is a code", killed_is_a_code, 1},
    {"a child that leaves without a result is a code", no_result_is_a_code, 1},
    {"also when it has handed something back", record_without_result_is_a_code, 1},
    {"the job after a failed one is as good as any", next_job_works, 1},
    {"a body runs in a child of the host", child_is_the_hosts, 1},
    {"a body does not change the host's memory", memory_is_the_hosts, 1},
    {"a child runs none of the host's exit handlers", exit_handlers_are_the_hosts, 1},
    {"a child has no signal handler and mask of the host's", childs_signals_are_its_own, 1},
    {"a child can write to a log that the host has open", log_stays_open, 1},
    {"output comes out once, the host's own too", output_comes_out_once, 1},
    {"input is read from its stream, and is empty without one", input_is_read, 1},
    {"a host needs no standard streams", no_streams_are_needed, 0},
    {"SIGCHLD may have its default", sigchld_may_be_default, 0},
    {"SIGCHLD may be ignored", sigchld_may_be_ignored, 0},
    {"SIGCHLD may have a handler that collects every child", sigchld_may_collect_all, 0},
    {"signals of the host are as before", signals_are_as_before, 0},
    {"other children of the host are left alone", other_children_are_left_alone, 0},
    {"no descriptor and no child is left behind", nothing_is_left_behind, 0},
    {"no child keeps a pipe of the host's open", hosts_pipes_are_its_own, 1},
    {"a job in the background ends in its completion", ends_in_its_completion, 0},
    {"a completion may be without a record", completion_may_be_without_record, 0},
    {"the handle may lie in the argument", handle_may_lie_in_the_argument, 0},
    {"a start does not wait for the body", start_does_not_wait, 0},
    {"ten jobs at once have one completion each", as_many_as_the_library_starts, 0},
    {"waiting for one job takes no completion of another", waiting_takes_no_completion, 0},
    {"the buffer of a completion outlives the next start", completions_buffer_outlives_starts, 0},
    {"a child that is killed is a completion with a code", killed_is_a_completion, 1},
    {"a job that failed brings no record, whatever it handed back", failed_job_has_no_record, 1},
    {"a body that takes too long is a completion with a code", too_long_is_a_completion, 0},
    {"a job may be started before there is a queue", start_may_come_before_the_queue, 0},
    {"completions come while SIGCHLD is blocked", completions_come_without_sigchld, 0},
    {"every code has a text", every_code_has_a_text, 0},
    {"the routing context opens and closes, more than once", routing_context_opens_and_closes, 0},
    {"VRF 0 can be bound to", vrf_0_binds, 0},
    {"a VRF that is not there cannot", missing_vrf_does_not_bind, 0},
    {"a job that is not bound reaches nothing", unbound_reaches_nothing, 1},
    {"a binding stays in its job", binding_stays_in_its_job, 0},
    {"the trace takes every message", trace_takes_every_message, 0},
    {"the trace never waits", trace_never_waits, 0},
};

#define CHECKS (sizeof checks / sizeof checks[0])

/* Measures the time here, in the parent: a platform could stop a timer in the check's process. */
static int wait_for_check(pid_t process)
{
    int status = 0;
    const long end = now_ms() + CHECK_SECONDS * 1000L;
    while (waitpid(process, &status, WNOHANG) == 0) {
        if (now_ms() > end) {
            printf("# waits forever\n");
            return BROKEN;
        }
        usleep(2000);
    }
    if (WIFSIGNALED(status))
        printf("# %s\n", strsignal(WTERMSIG(status)));
    return WIFEXITED(status) ? WEXITSTATUS(status) : BROKEN;
}

static int result_of(void (*check)(void))
{
    fflush(stdout);
    const pid_t process = fork();
    if (process < 0)
        return BROKEN;
    if (process == 0) {
        setpgid(0, 0);
        check();
        fflush(stdout);
        _exit(is_broken ? BROKEN : KEPT);
    }
    setpgid(process, process);
    const int result = wait_for_check(process);
    kill(-process, SIGKILL); /* processes that the check has left behind */
    return result;
}

/* Opens the standard streams and resets signals to their defaults, so that checks do not depend on the shell. */
static void reset_process_state(void)
{
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, NULL);
    signal(SIGCHLD, SIG_DFL);
    signal(SIGALRM, SIG_DFL);
    int fd = open("/dev/null", O_RDWR);
    while (fd >= 0 && fd < 3)
        fd = dup(fd);
    close(fd);
}

int main(int argc, char **argv)
{
    int all = 0, kept = 0, skipped = 0;
    reset_process_state();
    for (size_t i = 0; i < CHECKS; i++) {
        if (argc > 1 && strstr(checks[i].text, argv[1]) == NULL)
            continue;
        const int applies = !checks[i].needs_processes || the_port.jobs_are_processes;
        const int result = applies ? result_of(checks[i].check) : SKIPPED;
        kept += result == KEPT;
        skipped += result == SKIPPED;
        printf("%s %d - %s%s\n", result == KEPT || result == SKIPPED ? "ok" : "not ok", ++all, checks[i].text,
               !applies            ? " # SKIP jobs are no processes"
               : result == SKIPPED ? " # SKIP this machine does not reach itself"
                                   : "");
    }
    printf("1..%d\n# %s: %d kept, %d broken, %d do not apply\n", all, the_port.name, kept,
           all - kept - skipped, skipped);
    return all == 0 || kept + skipped < all;
}
