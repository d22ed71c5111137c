#include <HvUtil/HvInterface.h>

#include <HvUtil/HvObject.h>

#include <gtest/gtest.h>

#include <type_traits>

namespace {

// Offers the reference protocol without being counted.
class Uncounted : public HvInterface {
public:
    int payload = 3;
};

// Shows that both operations are virtual: a subclass may count after all.
class Recounted : public HvInterface {
public:
    int AddRef() override { return ++count; }
    int Release() override { return --count; }
    int count = 0;
};

} // namespace

TEST(HvInterface, AddRefAndReleaseReturnZero)
{
    Uncounted object;
    HvInterface& asInterface = object;
    EXPECT_EQ(asInterface.AddRef(), 0);
    EXPECT_EQ(asInterface.AddRef(), 0);
    EXPECT_EQ(asInterface.Release(), 0);
    EXPECT_EQ(asInterface.Release(), 0);
    // More releases than adds still touch nothing.
    EXPECT_EQ(asInterface.Release(), 0);
    EXPECT_EQ(object.payload, 3);
}

TEST(HvInterface, HasNoFieldsBeyondTheVtablePointer)
{
    EXPECT_EQ(sizeof(HvInterface), sizeof(void*));
    EXPECT_TRUE(std::is_polymorphic<HvInterface>::value);
    EXPECT_FALSE(std::has_virtual_destructor<HvInterface>::value);
}

TEST(HvInterface, IsUnrelatedToHvObject)
{
    EXPECT_FALSE((std::is_base_of<HvObject, HvInterface>::value));
    EXPECT_FALSE((std::is_base_of<HvInterface, HvObject>::value));
}

TEST(HvInterface, OperationsAreVirtual)
{
    Recounted object;
    HvInterface& asInterface = object;
    EXPECT_EQ(asInterface.AddRef(), 1);
    EXPECT_EQ(asInterface.AddRef(), 2);
    EXPECT_EQ(asInterface.Release(), 1);
    EXPECT_EQ(object.count, 1);
}
