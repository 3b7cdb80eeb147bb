#include "cover/VoidDPtrList.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "cover/ErrorCover.h"

namespace {

/// The list read forwards, once it is known to read the same backwards.
std::string Read(const CDataList<char*>& list) {
    std::string forwards;
    for (auto* at = list.GetHeadPosition(); at != nullptr; at = CVoidDPtrList::GetNextPosition(at))
        forwards += CDataList<char*>::GetDataPtr(at);
    std::string backwards;
    for (auto* at = list.GetTailPosition(); at != nullptr; at = CVoidDPtrList::GetPrevPosition(at))
        backwards.insert(0, CDataList<char*>::GetDataPtr(at));
    EXPECT_EQ(forwards, backwards);
    EXPECT_EQ(forwards.size(), list.GetListCount());
    return forwards;
}

TEST(VoidDPtrList, KeepsOrderWhateverIsDoneToIt) {
    char a[] = "a";
    char b[] = "b";
    char c[] = "c";
    char d[] = "d";
    CDataList<char*> list;
    EXPECT_EQ(nullptr, list.RemoveHead());
    CDPtrListElement* const second = list.AddHead(b);
    list.AddTail(d);
    CDPtrListElement* const third = list.InsertAfter(second, c);
    CDPtrListElement* const first = list.InsertBefore(second, a);
    EXPECT_EQ("abcd", Read(list));
    EXPECT_EQ(1, list.RemoveAt(third));
    EXPECT_EQ("abd", Read(list));
    EXPECT_EQ(d, list.RemoveTail());
    EXPECT_EQ(1, list.SearchElement(first));
    EXPECT_EQ(a, list.RemoveHead());
    EXPECT_EQ("b", Read(list));
    list.RemoveAll();
    EXPECT_EQ("", Read(list));
    EXPECT_EQ(nullptr, list.RemoveTail());
}

TEST(VoidDPtrList, RefusesPositionsOfOthers) {
    int x = 0;
    CVoidDPtrList list;
    CVoidDPtrList other;
    list.AddTail(&x);
    other.AddTail(&x);
    CDPtrListElement* const foreign = other.AddTail(&x);  // in the middle, where only its neighbours know it
    other.AddTail(&x);
    EXPECT_EQ(0, list.SearchElement(foreign));
    for (CDPtrListElement* position : {foreign, static_cast<CDPtrListElement*>(nullptr)}) {
        EXPECT_EQ(0, list.RemoveAt(position));
        EXPECT_EQ(nullptr, list.InsertBefore(position, &x));
        EXPECT_EQ(nullptr, list.InsertAfter(position, &x));
        EXPECT_EQ(EINVAL, list.GetErrorCode());
    }
    EXPECT_EQ(1U, list.GetListCount());
    EXPECT_EQ(3U, other.GetListCount());
}

TEST(VoidDPtrList, IsSharedUnderItsMutex) {
    CVoidDPtrList list;
    EXPECT_EQ(1, list.LockList()) << "nothing to lock yet";
    EXPECT_EQ(1, list.UnlockList());
    ASSERT_EQ(1, list.CreateMutexHandle());
    std::vector<std::thread> threads;
    threads.reserve(4);
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([&list] {
            for (int n = 0; n < 1000; ++n) {
                list.LockList();
                list.AddTail(&list);
                if (n % 2 == 1) list.RemoveHead();
                list.UnlockList();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(2000U, list.GetListCount());
    list.LockList();
    EXPECT_EQ(0, list.CloseMutexHandle()) << "held";
    list.UnlockList();
    EXPECT_EQ(1, list.CloseMutexHandle());
}

}  // namespace
