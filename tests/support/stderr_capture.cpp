#include "support/stderr_capture.h"

#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

void StderrCapture::start() {
    fflush(stderr);
    char path[] = "/tmp/kx_stderr_XXXXXX";
    file_ = mkstemp(path);
    unlink(path);
    saved_ = dup(2);
    dup2(file_, 2);
}

std::string StderrCapture::stop() {
    std::string out;
    if (saved_ < 0) return out;
    fflush(stderr);
    dup2(saved_, 2);
    close(saved_);
    saved_ = -1;
    lseek(file_, 0, SEEK_SET);
    char buf[4096];
    ssize_t n;
    while ((n = read(file_, buf, sizeof(buf))) > 0) out.append(buf, (size_t)n);
    close(file_);
    file_ = -1;
    return out;
}

StderrCapture::~StderrCapture() { stop(); }
