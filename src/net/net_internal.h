// Internal side of the socket engine, shared by the event thread and the socket families.
#pragma once

#include "korvex/korvex.h"

// Serves one client in one pass of the event thread: write, read, then the socket error probe.
// Called with the main lock held, only for entries whose client has type 1.
int select_dispath_client(_NetTcpClient *client);
