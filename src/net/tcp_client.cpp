// TCP client: a pooled, non-blocking connection served by the event thread.
#include "net/net_internal.h"

int select_dispath_client(_NetTcpClient *client) {
    (void)client;
    return 0;
}
