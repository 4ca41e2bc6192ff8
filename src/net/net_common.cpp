// Address checks and descriptor modes shared by the TCP client, the TCP server and the UDP client.
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "log/log_internal.h"
#include "net/net_internal.h"

int check_v4(const char *ip) {
    if (ip == nullptr) {
        sdk_log_msg("NULL == ip");
        return -1;
    }
    while (*ip) {
        if (!(*ip <= '9' && *ip >= '0')) {
            sdk_log_msg("!(*ip <= '9' && *ip++ >= '0')");
            return -1;
        }
        ip++;
    }
    return 0;
}

int check_ipv4(const char *ip) {
    if (ip == nullptr) return -1;
    int count = 0;
    for (const char *p = ip; *p; p++)
        if (*p == '.') count++;
    // Each field has room for a whole address text of 15 characters; a longer text can't overrun
    // because every conversion is bounded to 15.
    char s1[16] = "", s2[16] = "", s3[16] = "", s4[16] = "";
    int flag = sscanf(ip, "%15[^.].%15[^.].%15[^.].%15[^.]", s1, s2, s3, s4);
    if (count != 3 || flag != 4) {
        sdk_log_msg("count != 3 || flag != 4");
        return -1;
    }
    if (!(check_v4(s1) == 0 && check_v4(s2) == 0 && check_v4(s3) == 0 && check_v4(s4) == 0)) {
        sdk_log_msg("!(check_v4(s1) == 0 && check_v4(s2) == 0 && check_v4(s3) == 0 && check_v4(s4) == 0)");
        return -1;
    }
    const char *fields[4] = {s1, s2, s3, s4};
    for (const char *f : fields) {
        int v = atoi(f);
        if (v < 0 || v > 255) {
            sdk_log_msg("%s", "");
            return -1;
        }
    }
    return 0;
}

void net_set_nonblocking(int fd) {
    int flags = fcntl(fd, F_GETFL);
    if (flags < 0) {
        KX_LOG_ERR("fcntl sock F_GETFL fail");
        exit(0);
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        KX_LOG_ERR("fcntl sock F_SETFL fail");
        exit(0);
    }
}
