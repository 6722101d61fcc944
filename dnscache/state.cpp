/*
 * state.cpp: the state with its defaults.
 */
#include "dnscache/state.h"

GList *local_cache = nullptr;
GList *job_list = nullptr;
int32_t running_jobs = 0;
int32_t blocking_timeout = 3;
int32_t cache_timeout = 60;
int32_t cache_initialised = 0;
uint32_t async_queue = 0;
