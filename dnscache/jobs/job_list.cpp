/*
 * job_list.cpp: owns job_list and running_jobs.
 */
#include "dnscache/jobs/job_list.h"

#include "dnscache/lists/bounded_list.h"
#include "dnscache/state.h"

const server_addr_info *job_list_next(const GList **place)
{
    do
        *place = *place == nullptr ? job_list : (*place)->next;
    while (*place != nullptr && (*place)->data == nullptr);
    return *place != nullptr ? static_cast<const server_addr_info *>((*place)->data) : nullptr;
}

bool job_list_is_full()
{
    return running_jobs >= MAX_SPAWNLETS;
}

void job_list_add(server_addr_info *request)
{
    job_list = g_list_check_and_prepend(&job_list, request, MAX_SPAWNLETS);
    running_jobs++;
}

void job_list_remove(const server_addr_info *request)
{
    remove_list_link(&job_list, g_list_find(job_list, request));
    running_jobs--;
}
