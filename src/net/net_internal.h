// Internal side of the socket engine, shared by the event thread and the socket families.
#pragma once

#include "korvex/korvex.h"

// Serves one client in one pass of the event thread: write, read, then the socket error probe.
// Called with the main lock held, only for entries whose client has type 1.
int select_dispath_client(_NetTcpClient *client);

// 0 when ip is a dotted IPv4 address (four decimal fields of 0 to 255), -1 if not. Logs why not.
int check_ipv4(const char *ip);
// 0 when the text consists of decimal digits only (the empty text included), -1 if not.
int check_v4(const char *field);
// Makes fd non-blocking; 1. A failing fcntl is logged and ends the process.
int net_set_nonblocking(int fd);

// status, connectfd and udata of a client are written under the main lock (udata also by its
// owner) and read without it by the send, read and query calls and by the link: all accesses go
// through these.
inline int32_t client_status(const _NetTcpClient *c) { return __atomic_load_n(&c->status, __ATOMIC_ACQUIRE); }
inline void client_set_status(_NetTcpClient *c, int32_t v) { __atomic_store_n(&c->status, v, __ATOMIC_RELEASE); }
inline int32_t client_fd(const _NetTcpClient *c) { return __atomic_load_n(&c->connectfd, __ATOMIC_ACQUIRE); }
inline void client_set_fd(_NetTcpClient *c, int32_t fd) { __atomic_store_n(&c->connectfd, fd, __ATOMIC_RELEASE); }
inline void *client_udata(const _NetTcpClient *c) { return __atomic_load_n(&c->udata, __ATOMIC_ACQUIRE); }
inline void client_set_udata(_NetTcpClient *c, void *u) { __atomic_store_n(&c->udata, u, __ATOMIC_RELEASE); }
