// The smallest C++ program on korvex: a list of records and a log line.
#include <korvex/korvex.h>

#include <cstdio>

struct Sample {
    int id;
    double value;
};

int main() {
    _OS_DList *list = adt_dlist_create(sizeof(Sample));
    for (int i = 0; i < 3; i++) {
        Sample s{i, i * 1.5};
        adt_dlist_add(list, nullptr, &s);
    }
    double sum = 0;
    for (_OS_DListNode *n = adt_dlist_head(list); n != nullptr; n = adt_dlist_next(n))
        sum += static_cast<Sample *>(adt_dlist_getdata(n))->value;
    adt_dlist_destroy(list);
    sdk_log_msg("hello from C++, sum %.1f", sum);
    std::puts("hello.cpp ok");
    return sum == 4.5 ? 0 : 1;
}
