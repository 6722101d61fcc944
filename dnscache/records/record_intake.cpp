/*
 * record_intake.cpp: checks the bytes that a child handed back before they enter the cache.
 */
#include "dnscache/records/record_intake.h"

#include <string.h>

#include "dnscache/lists/list_block.h"

template <size_t size>
static void terminate(char (&field)[size])
{
    field[size - 1] = '\0';
}

server_spawnlet_data_t *new_record_from_child(const void *buffer)
{
    auto *record = static_cast<server_spawnlet_data_t *>(new_list_block(sizeof(server_spawnlet_data_t)));
    if (record == nullptr)
        return nullptr;
    memcpy(record, buffer, sizeof *record);
    terminate(record->serv_id);
    terminate(record->serv_name);
    terminate(record->service);
    if (record->num_entries < 0)
        record->num_entries = 0;
    return record;
}
