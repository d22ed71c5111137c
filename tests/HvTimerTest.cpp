#include <HvUtil/HvTimer.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

namespace {

class CountedTimer : public HvTimer {
public:
    CountedTimer(HvTime time, int& destroyed) : HvTimer(time), m_destroyed(destroyed) {}
    ~CountedTimer() override { ++m_destroyed; }

private:
    int& m_destroyed;
};

} // namespace

TEST(HvTimerTest, CarriesTheDueTimeItWasMadeWith)
{
    HvHandle<HvTimer> timer(new HvTimer(HvTime(1700000000123456.0)));
    EXPECT_EQ(1700000000123456.0, timer->getTime());
    HvHandle<HvTimer> zero(new HvTimer(HvTime()));
    EXPECT_EQ(0.0, zero->getTime());
}

TEST(HvTimerTest, IsAnObjectNamedAfterItsClassStartingWithoutReferences)
{
    HvTimer* timer = new HvTimer(HvTime(5.0));
    EXPECT_EQ(0, timer->getRefCount());
    HvHandle<HvObject> handle(timer);
    EXPECT_EQ(1, timer->getRefCount());
    // getClassName() skips two characters of the mangled "7HvTimer".
    EXPECT_STREQ("vTimer", handle->getClassName());
    EXPECT_EQ(5.0, HvHandle<HvTimer>(handle)->getTime());
}

TEST(HvTimerTest, IsDestroyedWithItsLastHandle)
{
    int destroyed = 0;
    {
        HvHandle<HvTimer> timer(new CountedTimer(HvTime(1.0), destroyed));
        HvHandle<HvObject> second(timer);
        timer = HvHandle<HvTimer>();
        EXPECT_EQ(0, destroyed);
    }
    EXPECT_EQ(1, destroyed);
}

TEST(HvTimerTest, ComparesByIdentityAsEveryObject)
{
    HvHandle<HvTimer> one(new HvTimer(HvTime(1.0)));
    HvHandle<HvTimer> same(new HvTimer(HvTime(1.0)));
    EXPECT_EQ(0, one->compareWith(one.get()));
    EXPECT_NE(0, one->compareWith(same.get()));
}
