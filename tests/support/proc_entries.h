// Entries of a /proc directory of this process: /proc/self/fd (which holds the reading stream's own
// descriptor too) or /proc/self/task. Tests compare the counts before and after.
#pragma once

#include <dirent.h>
#include <pthread.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

inline int proc_entries(const char *dir) {
    int n = 0;
    DIR *d = opendir(dir);
    if (d == nullptr) return -1;
    while (struct dirent *e = readdir(d))
        if (e->d_name[0] != '.') n++;
    closedir(d);
    return n;
}

// The count once it has come to want, or after about two seconds whatever it is then. A joined thread
// leaves /proc/self/task a moment after the join returns (under an emulator, noticeably later).
inline int proc_entries_settle(const char *dir, int want) {
    int n = proc_entries(dir);
    for (int ms = 0; n != want && ms < 2000; ms++) {
        struct timespec t = {0, 1000000};
        nanosleep(&t, nullptr);
        n = proc_entries(dir);
    }
    return n;
}

// Runs one thread of our own to its end before threads are counted, so that a sanitizer runtime has
// started its helper threads: joined, and awaited (bounded) until its /proc/self/task entry is gone.
inline void proc_warm_thread() {
    static long tid;
    pthread_t warm;
    pthread_create(&warm, nullptr, [](void *) -> void * { tid = syscall(SYS_gettid); return nullptr; }, nullptr);
    pthread_join(warm, nullptr);
    char path[64];
    snprintf(path, sizeof(path), "/proc/self/task/%ld", tid);
    struct stat st;
    for (int ms = 0; stat(path, &st) == 0 && ms < 2000; ms++) {
        struct timespec t = {0, 1000000};
        nanosleep(&t, nullptr);
    }
}
