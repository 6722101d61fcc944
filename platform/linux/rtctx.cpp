/*
 * rtctx.cpp: the routing context. Linux selects the route by network namespace or device, and a job binds itself to
 * one of these: there is no service to connect to.
 */
#include "platform/rtctx.h"

int rtctx_api_init(void)
{
    return 1;
}

void rtctx_api_close(void) {}
