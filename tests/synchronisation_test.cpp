#include "KivFramework/KivProcesses.h"

#include <gtest/gtest.h>

namespace {

using namespace KivFramework::KivProcesses;

TEST(TryLockReadRWLocker, ReturnsFalseOnAFreeLockerButTakesAHold) {
    _kivRWLocker* locker = CreateRWLocker(false);
    EXPECT_FALSE(TryLockReadRWLocker(locker));
    EXPECT_EQ(locker->lock_count, 1);
    UnlockRWLocker(locker);
    DestroyRWLocker(locker);
    delete locker;
}

} // namespace
