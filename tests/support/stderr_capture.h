// Captures what the process writes to standard error between start() and stop().
#pragma once

#include <string>

class StderrCapture {
public:
    void start();
    std::string stop();
    ~StderrCapture();

private:
    int saved_ = -1;
    int file_ = -1;
};
