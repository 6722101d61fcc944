/*
 * bounded_list.h: the only way to remove one element of a list. Elements are added by g_list_check_and_prepend(), which
 * is public.
 */
#ifndef DNSCACHE_LISTS_BOUNDED_LIST_H
#define DNSCACHE_LISTS_BOUNDED_LIST_H

#include <glib.h>

/* remove_list_link: unlink an element of *list, store the new head, free the element's data and the link. */
void remove_list_link(GList **list, GList *link);

#endif
