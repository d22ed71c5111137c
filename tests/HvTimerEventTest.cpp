#include <HvUtil/HvTimerEvent.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

namespace {

// Notes its name in a shared list when destroyed.
template <class Base>
class Named : public Base {
public:
    Named(const char* name, std::vector<std::string>& order) : m_name(name), m_order(order) {}
    ~Named() override { m_order.push_back(m_name); }

private:
    const char* m_name;
    std::vector<std::string>& m_order;
};

} // namespace

TEST(HvTimerEventTest, HoldsAReferenceOnTheObserverAndTheArgument)
{
    HvHandle<HvObserver> observer(new HvObserver);
    HvHandle<HvObject> argument(new HvObject);
    {
        HvTimerEvent event(observer.get(), argument.get());
        EXPECT_EQ(observer.get(), event.getObserver());
        EXPECT_EQ(argument.get(), event.getArgument());
        EXPECT_EQ(2, observer->getRefCount());
        EXPECT_EQ(2, argument->getRefCount());
    }
    EXPECT_EQ(1, observer->getRefCount());
    EXPECT_EQ(1, argument->getRefCount());
}

TEST(HvTimerEventTest, KeepsBothAliveAfterTheirOtherHandlesWent)
{
    std::vector<std::string> order;
    std::unique_ptr<HvTimerEvent> event;
    {
        HvHandle<HvObserver> observer(new Named<HvObserver>("observer", order));
        HvHandle<HvObject> argument(new Named<HvObject>("argument", order));
        event.reset(new HvTimerEvent(observer.get(), argument.get()));
    }
    EXPECT_TRUE(order.empty());
    EXPECT_EQ(1, event->getObserver()->getRefCount());
    event.reset();
    EXPECT_EQ(2u, order.size());
}

TEST(HvTimerEventTest, ReleasesTheArgumentFirstAndThenTheObserver)
{
    std::vector<std::string> order;
    HvBaseEvent* event = new HvTimerEvent(new Named<HvObserver>("observer", order), new Named<HvObject>("argument", order));
    // Deleted as a queue deletes what it holds: through the base.
    delete event;
    EXPECT_EQ((std::vector<std::string>{"argument", "observer"}), order);
}

TEST(HvTimerEventTest, EitherMayBeNil)
{
    HvTimerEvent empty(nullptr, nullptr);
    EXPECT_EQ(nullptr, empty.getObserver());
    EXPECT_EQ(nullptr, empty.getArgument());
    HvHandle<HvObserver> observer(new HvObserver);
    HvTimerEvent withoutArgument(observer.get(), nullptr);
    EXPECT_EQ(observer.get(), withoutArgument.getObserver());
    EXPECT_EQ(nullptr, withoutArgument.getArgument());
}
