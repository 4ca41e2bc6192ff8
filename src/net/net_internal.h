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
