/*
 * evtrack.cpp: the event history and the debug channel.
 *
 * The history is a ring in memory that is shared with forked jobs. It is created when recording is first switched
 * on, and then kept, so that running jobs lose no records when recording is switched off and on again. Its writers
 * are processes that may be killed in the middle of a record, so there is no lock: a writer takes a ticket, marks
 * its slot as being written, and signs the slot with the ticket when the record is complete. The reader accepts
 * signed slots only, and checks the signature before and after it copies a record.
 */
#include "platform/evtrack.h"

#include <errno.h>
#include <poll.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include "platform/linux/linux_platform.h"

struct history_slot {
    alignas(8) uint64_t signature; /* ticket of the record in this slot; 0 while it is being written */
    uint32_t event_class;
    uint32_t length;
    int32_t pid;
    unsigned char record[LINUX_HISTORY_BYTES];
};

struct history_ring {
    alignas(8) uint64_t last_ticket;
    history_slot slots[LINUX_HISTORY_RECORDS];
};

/* If these operations used a lock of the compiler's runtime, processes would not share that lock. */
static_assert(__atomic_always_lock_free(sizeof(uint64_t), nullptr));

static history_ring *ring;
static bool history_is_on;
static bool debug_is_on;

evtrack_modname evtrack_dbg_modname = {"dnscache"};

int linux_history_enable(int on)
{
    if (on != 0 && ring == nullptr) {
        void *memory = mmap(nullptr, sizeof *ring, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
        if (memory == MAP_FAILED)
            return -1;
        ring = static_cast<history_ring *>(memory);
    }
    history_is_on = on != 0;
    return 0;
}

int evtrack_hist_event_subtype_check(uint32_t, uint32_t)
{
    return history_is_on ? 0 : 1;
}

int evtrack_hist_event(uint32_t event_class, uint32_t length, const void *record)
{
    if (!history_is_on)
        return -1;
    const uint64_t ticket = __atomic_add_fetch(&ring->last_ticket, 1, __ATOMIC_RELAXED);
    history_slot *slot = &ring->slots[ticket % LINUX_HISTORY_RECORDS];
    __atomic_store_n(&slot->signature, 0, __ATOMIC_RELAXED);
    __atomic_thread_fence(__ATOMIC_RELEASE);
    slot->event_class = event_class;
    slot->length = length < LINUX_HISTORY_BYTES ? length : LINUX_HISTORY_BYTES;
    slot->pid = getpid();
    memcpy(slot->record, record, slot->length);
    if (length > LINUX_HISTORY_BYTES)
        slot->record[LINUX_HISTORY_BYTES - 1] = '\0';
    __atomic_store_n(&slot->signature, ticket, __ATOMIC_RELEASE);
    return 0;
}

/* Returns false if the slot does not hold this record: it is being written, or it has been overwritten. */
static bool copy_signed(uint64_t ticket, linux_history_record *record)
{
    const history_slot *slot = &ring->slots[ticket % LINUX_HISTORY_RECORDS];
    if (__atomic_load_n(&slot->signature, __ATOMIC_ACQUIRE) != ticket)
        return false;
    record->sequence = ticket;
    record->event_class = slot->event_class;
    record->length = slot->length < LINUX_HISTORY_BYTES ? slot->length : LINUX_HISTORY_BYTES;
    record->pid = slot->pid;
    memcpy(record->record, slot->record, sizeof record->record);
    record->record[LINUX_HISTORY_BYTES - 1] = '\0';
    __atomic_thread_fence(__ATOMIC_ACQUIRE);
    return __atomic_load_n(&slot->signature, __ATOMIC_RELAXED) == ticket;
}

int linux_history_read(uint64_t *cursor, linux_history_record *record)
{
    if (ring == nullptr)
        return 0;
    /* Children can write any value here: the loop reads at most one ring of records, whatever the last ticket is. */
    const uint64_t last = __atomic_load_n(&ring->last_ticket, __ATOMIC_ACQUIRE);
    const uint64_t overrun = last > LINUX_HISTORY_RECORDS ? last - LINUX_HISTORY_RECORDS : 0;
    uint64_t ticket = *cursor > overrun ? *cursor : overrun;
    for (int i = 0; i < LINUX_HISTORY_RECORDS && ticket < last; i++) {
        if (!copy_signed(++ticket, record))
            continue;
        *cursor = ticket;
        return 1;
    }
    return 0;
}

void linux_debug_enable(int on)
{
    debug_is_on = on != 0;
}

int evtrack_chk_int(int, int, int, int)
{
    return debug_is_on ? 1 : 0;
}

/*
 * Writes each line with one write(), or drops it if write() would block or the channel has no reader: the debug
 * channel must not block a daemon or kill it by SIGPIPE.
 */
int dbgemit(int, const void *modname, int, const char *format, ...)
{
    const int error = errno;
    char line[4096];
    const int name = snprintf(line, sizeof line, "%s: ", static_cast<const evtrack_modname *>(modname)->name);
    va_list args;
    va_start(args, format);
    vsnprintf(line + name, sizeof line - static_cast<size_t>(name) - 1, format, args);
    va_end(args);
    /* Some messages end with a newline and some do not; on this channel each message gets its own line. */
    size_t length = strlen(line);
    if (line[length - 1] != '\n')
        line[length++] = '\n';
    struct pollfd channel = {.fd = STDERR_FILENO, .events = POLLOUT, .revents = 0};
    const bool has_reader_and_room = poll(&channel, 1, 0) == 1 && channel.revents == POLLOUT;
    const ssize_t written = has_reader_and_room ? write(STDERR_FILENO, line, length) : 0;
    errno = error;
    return static_cast<int>(written);
}
