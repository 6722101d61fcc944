/*
 * job_list.h: the list of the running background jobs: it holds their request records. Only job_list.cpp changes
 * job_list and running_jobs. Each caller searches the list in its own way and traces its own messages.
 */
#ifndef DNSCACHE_JOBS_JOB_LIST_H
#define DNSCACHE_JOBS_JOB_LIST_H

#include <glib.h>

#include "dnscache/dnscache.h"

/*
 * job_list_next: the next running job, newest first.
 *
 * place  in and out: the position in the list; set it to NULL to start
 *
 * Returns its request record, which the list owns; NULL after the last one.
 */
const server_addr_info *job_list_next(const GList **place);

/* job_list_is_full: whether MAX_SPAWNLETS jobs are running. */
bool job_list_is_full();

/* job_list_add: the job of this request has started. The list owns the request record from now on. */
void job_list_add(server_addr_info *request);

/* job_list_remove: the job of this request, an element of the list, is finished. Frees the request record. */
void job_list_remove(const server_addr_info *request);

#endif
