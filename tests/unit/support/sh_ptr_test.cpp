#include "sh_ptr.h"

#include <gtest/gtest.h>

namespace {

struct Counted {
    static int alive;
    Counted() { ++alive; }
    ~Counted() { --alive; }
};
int Counted::alive = 0;

TEST(ShPtr, SetReachesEveryCopyAndLeavesOldTargetAlive) {
    Counted* first = new Counted;
    Counted* second = new Counted;
    sh_ptr<Counted> b(first);
    sh_ptr<Counted> a(nullptr);
    a = b;
    EXPECT_EQ(a.get(), first);
    EXPECT_EQ(a.use_count(), 2);
    b.set(second);
    EXPECT_EQ(a.get(), second);
    EXPECT_EQ(Counted::alive, 2) << "set must not delete the old target";
    delete first;
}

TEST(ShPtr, LastCopyDeletesCurrentTargetOnly) {
    {
        sh_ptr<Counted> a(new Counted);
        {
            sh_ptr<Counted> b(a);
            EXPECT_EQ(Counted::alive, 1);
        }
        EXPECT_EQ(Counted::alive, 1);
    }
    EXPECT_EQ(Counted::alive, 0);
    {
        sh_ptr<Counted> a(new Counted);
        Counted* p = a.get();
        a.set(nullptr);
        delete p;
    }
    EXPECT_EQ(Counted::alive, 0);
}

TEST(ShPtr, SelfAssignmentKeepsTheTarget) {
    sh_ptr<Counted> a(new Counted);
    sh_ptr<Counted>& alias = a;
    a = alias;
    EXPECT_EQ(Counted::alive, 1);
    EXPECT_EQ(a.use_count(), 1);
}

}  // namespace
