// The locked list: where nodes go, deletion at every position, walking while deleting.
#include <gtest/gtest.h>

#include <vector>

#include "korvex/korvex.h"
#include "support/stderr_capture.h"

namespace {

std::vector<int> contents(_OS_DList *l) {
    std::vector<int> v;
    for (_OS_DListNode *n = adt_dlist_head(l); n; n = adt_dlist_next(n)) v.push_back(*(int *)adt_dlist_getdata(n));
    // The backward walk must see the same nodes.
    std::vector<int> back;
    for (_OS_DListNode *n = adt_dlist_end(l); n; n = adt_dlist_prev(n)) back.insert(back.begin(), *(int *)adt_dlist_getdata(n));
    EXPECT_EQ(v, back);
    EXPECT_EQ(v.size(), adt_dlist_size(l));
    return v;
}

}  // namespace

TEST(DList, InsertAndAddPlaceNodesAndCopyElements) {
    _OS_DList *l = adt_dlist_create(sizeof(int));
    ASSERT_NE(nullptr, l);
    EXPECT_EQ(1, adt_dlist_empty(l));
    int v = 1;
    _OS_DListNode *bogus = reinterpret_cast<_OS_DListNode *>(0x1);
    _OS_DListNode *n1 = adt_dlist_insert(l, bogus, &v);  // empty list: reference ignored
    v = 99;                                             // the list holds its own copy
    EXPECT_EQ(1, *(int *)adt_dlist_getdata(n1));
    v = 0;
    adt_dlist_insert(l, nullptr, &v);  // front
    v = 3;
    _OS_DListNode *n3 = adt_dlist_add(l, nullptr, &v);  // back
    v = 2;
    adt_dlist_insert(l, n3, &v);  // before 3
    v = 4;
    adt_dlist_add(l, n3, &v);  // after the tail: new tail
    v = -1;
    adt_dlist_insert(l, adt_dlist_head(l), &v);  // before the head: new head
    EXPECT_EQ((std::vector<int>{-1, 0, 1, 2, 3, 4}), contents(l));

    // Delete in the middle, at the tail, at the head.
    EXPECT_EQ(1, adt_dlist_delete(l, n3));
    EXPECT_EQ(1, adt_dlist_delete(l, adt_dlist_end(l)));
    EXPECT_EQ(1, adt_dlist_delete(l, adt_dlist_head(l)));
    EXPECT_EQ((std::vector<int>{0, 1, 2}), contents(l));

    // Walk while deleting: the result is the following node, null at the end.
    _OS_DListNode *n = adt_dlist_head(l);
    while (n) n = adt_dlist_delete_ex(l, n);
    EXPECT_TRUE(adt_dlist_head(l) == nullptr && adt_dlist_end(l) == nullptr && adt_dlist_empty(l) == 1);

    // Takes new nodes as before.
    v = 7;
    adt_dlist_add(l, nullptr, &v);
    EXPECT_EQ((std::vector<int>{7}), contents(l));
    // Lock twice, unlock twice, on one thread.
    EXPECT_EQ(1, adt_dlist_lock(l));
    EXPECT_EQ(1, adt_dlist_lock(l));
    EXPECT_EQ(1, adt_dlist_unlock(l));
    EXPECT_EQ(1, adt_dlist_unlock(l));
    EXPECT_EQ(1, adt_dlist_destroy(l));  // frees the remaining node (ASan checks)
}

TEST(DList, NullArgumentsAreRefused) {
    StderrCapture cap;
    cap.start();
    int v = 0;
    EXPECT_EQ(nullptr, adt_dlist_insert(nullptr, nullptr, &v));
    EXPECT_EQ(0, adt_dlist_lock(nullptr));
    EXPECT_EQ(nullptr, adt_dlist_delete_ex(nullptr, nullptr));
    _OS_DList *l = adt_dlist_create(sizeof(int));
    EXPECT_EQ(nullptr, adt_dlist_delete_ex(l, nullptr));
    EXPECT_EQ(0, adt_dlist_delete(l, nullptr));
    std::string out = cap.stop();
    EXPECT_NE(out.find("dlist == NULL\n"), std::string::npos);
    EXPECT_NE(out.find("node == NULL\n"), std::string::npos);
    EXPECT_EQ(nullptr, adt_dlist_next(nullptr));
    adt_dlist_destroy(l);
}
