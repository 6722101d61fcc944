/*
 * rtctx.h: the process's connection to the routing-context service. The library closes it before each fork,
 * so that no child inherits it, and opens it again after; a child opens its own.
 */
#ifndef PLATFORM_RTCTX_H
#define PLATFORM_RTCTX_H

#ifdef __cplusplus
extern "C" {
#endif

/* rtctx_api_init: open the connection. Nonzero: connected. */
int rtctx_api_init(void);

/* rtctx_api_close: close the connection; without one it does nothing. */
void rtctx_api_close(void);

#ifdef __cplusplus
}
#endif

#endif
