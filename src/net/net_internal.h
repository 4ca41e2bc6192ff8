// Internal side of the socket engine, shared by the event thread and the socket families.
#pragma once

#include "korvex/korvex.h"

// Serves one client in one pass of the event thread: write, read, then the socket error probe.
// Called with the main lock held, only for entries whose client has type 1.
int select_dispath_client(_NetTcpClient *client);

// 0 if the text is a dotted IPv4 address (four decimal fields of 0 to 255), -1 if not.
int check_ipv4(const char *ip);
// 0 if the text consists of decimal digits only, -1 if not.
int check_v4(const char *ip);
// Makes the descriptor non-blocking; a failing fcntl is logged and ends the process.
void net_set_nonblocking(int fd);
