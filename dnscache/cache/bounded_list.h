/*
 * bounded_list.h: the one way out of a list. The way in, g_list_check_and_prepend(), is public.
 */
#ifndef DNSCACHE_CACHE_BOUNDED_LIST_H
#define DNSCACHE_CACHE_BOUNDED_LIST_H

#include <glib.h>

/* remove_list_link: unlink an element of *list, store the new head, free the element's data and the link. */
void remove_list_link(GList **list, GList *link);

#endif
