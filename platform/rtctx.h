/*
 * rtctx.h: the process's connection to the routing-context service. The library closes it before each fork, so
 * that no child inherits it, and opens it again afterwards. A child opens its own connection.
 */
#ifndef PLATFORM_RTCTX_H
#define PLATFORM_RTCTX_H

#ifdef __cplusplus
extern "C" {
#endif

/* rtctx_api_init: open the connection. Returns nonzero when connected, 0 on failure. */
int rtctx_api_init(void);

/* rtctx_api_close: close the connection. It does nothing if there is no connection. */
void rtctx_api_close(void);

#ifdef __cplusplus
}
#endif

#endif
