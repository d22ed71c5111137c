#include <HvUtil/HvBaseEvent.h>

#include <gtest/gtest.h>

#include <type_traits>

namespace {

int fs_destroyed = 0;

class CountedEvent : public HvBaseEvent {
public:
    explicit CountedEvent(int value) : m_value(value) {}
    ~CountedEvent() override { ++fs_destroyed; }
    int m_value;
};

} // namespace

TEST(HvBaseEvent, DestructorIsVirtual)
{
    EXPECT_TRUE(std::has_virtual_destructor<HvBaseEvent>::value);
    EXPECT_TRUE(std::is_polymorphic<HvBaseEvent>::value);
}

TEST(HvBaseEvent, DeletingThroughTheBaseDestroysTheDerivedEvent)
{
    fs_destroyed = 0;
    HvBaseEvent* event = new CountedEvent(7);
    EXPECT_EQ(7, dynamic_cast<CountedEvent*>(event)->m_value);
    delete event;
    EXPECT_EQ(1, fs_destroyed);
}
