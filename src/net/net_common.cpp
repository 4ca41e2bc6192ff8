// Address checks, socket addresses and descriptor mode, shared by the TCP client, the TCP server and the UDP client.
#include <arpa/inet.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <netinet/in.h>

#include "log/log_internal.h"
#include "net/net_internal.h"

int check_v4(const char *field) {
    if (field == nullptr) {
        sdk_log_msg("NULL == ip");
        return -1;
    }
    for (const char *p = field; *p != '\0'; p++) {
        if (*p < '0' || *p > '9') {
            sdk_log_msg("!(*ip <= '9' && *ip++ >= '0')");
            return -1;
        }
    }
    return 0;
}

int check_ipv4(const char *ip) {
    if (ip == nullptr) {
        sdk_log_msg("NULL == ip");
        return -1;
    }
    int count = 0;
    for (const char *p = ip; *p != '\0'; p++)
        if (*p == '.') count++;
    // Each field is bounded by its room, so a long text can neither overrun a field nor pass: the
    // literal "." behind a cut field does not match and fewer than four fields come back.
    char s[4][16];
    int flag = sscanf(ip, "%15[^.].%15[^.].%15[^.].%15[^.]", s[0], s[1], s[2], s[3]);
    if (count != 3 || flag != 4) {
        sdk_log_msg("count != 3 || flag != 4");
        return -1;
    }
    for (int i = 0; i < 4; i++) {
        if (check_v4(s[i]) != 0) {
            sdk_log_msg("!(check_v4(s1) == 0 && check_v4(s2) == 0 && check_v4(s3) == 0 && check_v4(s4) == 0)");
            return -1;
        }
    }
    for (int i = 0; i < 4; i++) {
        // Digits only, at most 15 of them: strtol cannot overflow a long here.
        long v = strtol(s[i], nullptr, 10);
        if (v < 0 || v > 255) {
            sdk_log_msg("%s", "");
            return -1;
        }
    }
    return 0;
}

int net_set_nonblocking(int fd) {
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0) {
        KX_LOG_ERR("fcntl sock F_GETFL fail");
        exit(0);
    }
    if (fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) {
        KX_LOG_ERR("fcntl sock F_SETFL fail");
        exit(0);
    }
    return 1;
}

int net_make_addr(bool v4, const char *ip, uint16_t port, sockaddr_storage *ss, socklen_t *len) {
    memset(ss, 0, sizeof(*ss));
    if (v4) {
        sockaddr_in *a = reinterpret_cast<sockaddr_in *>(ss);
        a->sin_family = AF_INET;
        a->sin_port = htons(port);
        a->sin_addr.s_addr = ip[0] != '\0' ? inet_addr(ip) : htonl(INADDR_ANY);
        *len = sizeof(sockaddr_in);
        return 1;
    }
    sockaddr_in6 *a = reinterpret_cast<sockaddr_in6 *>(ss);
    a->sin6_family = AF_INET6;
    a->sin6_port = htons(port);
    *len = sizeof(sockaddr_in6);
    if (ip[0] == '\0') {
        a->sin6_addr = in6addr_any;
        return 1;
    }
    return inet_pton(AF_INET6, ip, &a->sin6_addr) < 0 ? 0 : 1;
}
