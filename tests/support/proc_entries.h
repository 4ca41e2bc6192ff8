// Entries of a /proc directory of this process: /proc/self/fd (which holds the reading stream's own
// descriptor too) or /proc/self/task. Tests compare the counts before and after.
#pragma once

#include <dirent.h>

inline int proc_entries(const char *dir) {
    int n = 0;
    DIR *d = opendir(dir);
    if (d == nullptr) return -1;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n;
}
