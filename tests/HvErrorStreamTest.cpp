#include <HvUtil/HvErrorStream.h>

#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvOutputSink.h>

#include <Velmora/MemAllocator.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <string>
#include <unistd.h>
#include <vector>

namespace {

// Records what is forwarded to it: each write(int) value, each block write
// with its arguments, and each flush.
class RecordingOutputStream : public HvOutputStream {
public:
    struct Block {
        const void* buffer;
        unsigned int length;
        unsigned int offset;
    };

    explicit RecordingOutputStream(int* destroyed = nullptr) : m_destroyed(destroyed) {}
    ~RecordingOutputStream() override
    {
        if (m_destroyed)
            ++*m_destroyed;
    }

    void write(int byte) override { values.push_back(byte); }
    void write(const void* buffer, unsigned int length, unsigned int offset) override
    {
        blocks.push_back({buffer, length, offset});
    }
    using HvOutputStream::write;
    void flush() override { ++flushes; }

    std::vector<int> values;
    std::vector<Block> blocks;
    int flushes = 0;

private:
    int* m_destroyed;
};

HvOutputStream* sink()
{
    return &HvOutputSink::sGetInstance();
}

} // namespace

// ---- forwarding to a target ----

TEST(HvErrorStream, WriteIntGoesToTheTarget)
{
    RecordingOutputStream target;
    HvErrorStream errors(&target);
    errors.write('a');
    errors.write(-56);
    errors.write(0x141);
    EXPECT_EQ((std::vector<int>{'a', -56, 0x141}), target.values);

    HvByteArrayOutputStream bytes(0);
    HvErrorStream toBytes(&bytes);
    toBytes.write('a');
    toBytes.write(0x142);
    EXPECT_EQ("aB", hvtest::textOf(bytes));
}

TEST(HvErrorStream, BlockWriteGoesToTheTargetUnchanged)
{
    RecordingOutputStream target;
    HvErrorStream errors(&target);
    const char text[] = "0123456789";
    errors.write(text, 4, 3);
    ASSERT_EQ(1u, target.blocks.size());
    EXPECT_EQ(text, target.blocks[0].buffer);
    EXPECT_EQ(4u, target.blocks[0].length);
    EXPECT_EQ(3u, target.blocks[0].offset);
    EXPECT_TRUE(target.values.empty());

    HvByteArrayOutputStream bytes(0);
    HvErrorStream toBytes(&bytes);
    toBytes.write(text, 4, 3);
    EXPECT_EQ("3456", hvtest::textOf(bytes));
}

TEST(HvErrorStream, WriteTextPassesItsTerminatingNul)
{
    HvByteArrayOutputStream bytes(0);
    HvErrorStream errors(&bytes);
    errors.write("ab");
    EXPECT_EQ(std::string("ab\0", 3), hvtest::textOf(bytes));
    EXPECT_EQ(3u, bytes.getCount());

    errors.write("");
    EXPECT_EQ(std::string("ab\0\0", 4), hvtest::textOf(bytes));
}

TEST(HvErrorStream, WriteOfNilTextWritesNothing)
{
    HvByteArrayOutputStream bytes(0);
    HvErrorStream errors(&bytes);
    errors.write(static_cast<const char*>(nullptr));
    EXPECT_EQ(0u, bytes.getCount());
}

TEST(HvErrorStream, StreamedTextHasNoNul)
{
    HvByteArrayOutputStream bytes(0);
    HvErrorStream errors(&bytes);
    errors << "ab" << 12 << endl;
    EXPECT_EQ("ab12\n", hvtest::textOf(bytes));
}

TEST(HvErrorStream, FlushGoesToTheTarget)
{
    RecordingOutputStream target;
    HvErrorStream errors(&target);
    errors.flush();
    EXPECT_EQ(1, target.flushes);
    errors << endl;
    EXPECT_EQ(2, target.flushes);
    EXPECT_EQ((std::vector<int>{10}), target.values);
}

// ---- level ----

TEST(HvErrorStream, LevelIsThreeAfterConstruction)
{
    HvErrorStream errors(nullptr);
    EXPECT_EQ(3u, errors.getLevel());
    RecordingOutputStream target;
    HvErrorStream withTarget(&target);
    EXPECT_EQ(3u, withTarget.getLevel());
}

TEST(HvErrorStream, SetLevelMovesTheThreshold)
{
    RecordingOutputStream target;
    HvErrorStream errors(&target);
    errors.setDebugMode("x");
    errors.setLevel(5);
    EXPECT_EQ(5u, errors.getLevel());
    EXPECT_EQ(&target, errors.getDebugStream(4));
    EXPECT_EQ(sink(), errors.getDebugStream(5));
    EXPECT_TRUE(errors.checkDebugMode("x", 4));
    EXPECT_FALSE(errors.checkDebugMode("x", 5));

    errors.setLevel(0);
    EXPECT_EQ(sink(), errors.getDebugStream(0u));
    EXPECT_FALSE(errors.checkDebugMode("x", 0));
}

// ---- debug modes ----

TEST(HvErrorStream, NoModeIsSetAtFirst)
{
    RecordingOutputStream target;
    HvErrorStream errors(&target);
    EXPECT_FALSE(errors.checkDebugMode("x", 0));
    EXPECT_FALSE(errors.checkDebugMode("HvException", 0));
}

TEST(HvErrorStream, SetCheckAndClearDebugMode)
{
    RecordingOutputStream target;
    HvErrorStream errors(&target);
    errors.setDebugMode("x");
    EXPECT_TRUE(errors.checkDebugMode("x", 0));
    EXPECT_TRUE(errors.checkDebugMode("x", 2));
    EXPECT_FALSE(errors.checkDebugMode("x", 3));
    EXPECT_FALSE(errors.checkDebugMode("x", 100));
    EXPECT_FALSE(errors.checkDebugMode("y", 0));

    errors.setDebugMode("x");
    errors.setDebugMode("y");
    EXPECT_TRUE(errors.checkDebugMode("y", 1));

    errors.clearDebugMode("x");
    EXPECT_FALSE(errors.checkDebugMode("x", 0));
    EXPECT_TRUE(errors.checkDebugMode("y", 0));

    // Clearing a mode that is not set changes nothing.
    errors.clearDebugMode("never");
    errors.clearDebugMode("x");
    EXPECT_TRUE(errors.checkDebugMode("y", 0));
}

TEST(HvErrorStream, ModesLiveAndDieWithTheStream)
{
    long before = Velmora::allocationStats("HvStringBuffer").liveCount;
    {
        RecordingOutputStream target;
        HvErrorStream errors(&target);
        errors.setDebugMode(HvString("first mode"));
        errors.setDebugMode(HvString("second mode"));
        errors.clearDebugMode(HvString("first mode"));
        EXPECT_TRUE(errors.checkDebugMode(HvString("second mode"), 0));
    }
    EXPECT_EQ(before, Velmora::allocationStats("HvStringBuffer").liveCount);
}

// ---- debug streams ----

TEST(HvErrorStream, NoModeGivesTheSinkAndWritingToItHasNoEffect)
{
    HvByteArrayOutputStream bytes(0);
    HvErrorStream errors(&bytes);
    HvOutputStream* debug = errors.getDebugStream("x", 0);
    EXPECT_EQ(sink(), debug);
    *debug << "hidden" << 42 << endl;
    debug->write('z');
    debug->write("abc", 3, 0);
    debug->flush();
    EXPECT_EQ(0u, bytes.getCount());
}

TEST(HvErrorStream, ModeBelowTheLevelGivesTheTarget)
{
    HvByteArrayOutputStream bytes(0);
    HvErrorStream errors(&bytes);
    errors.setDebugMode("x");
    EXPECT_EQ(&bytes, errors.getDebugStream("x", 2));
    EXPECT_EQ(&bytes, errors.getDebugStream("x", 0));
    EXPECT_EQ(sink(), errors.getDebugStream("x", 3));
    EXPECT_EQ(sink(), errors.getDebugStream("y", 0));

    *errors.getDebugStream("x", 2) << "shown";
    *errors.getDebugStream("x", 3) << "hidden";
    EXPECT_EQ("shown", hvtest::textOf(bytes));
}

TEST(HvErrorStream, ModeWithoutTargetGivesTheStreamItself)
{
    HvErrorStream errors(nullptr);
    errors.setDebugMode("x");
    EXPECT_EQ(&errors, errors.getDebugStream("x", 2));
    EXPECT_EQ(sink(), errors.getDebugStream("x", 3));
    EXPECT_EQ(sink(), errors.getDebugStream("other", 2));
}

TEST(HvErrorStream, LevelStreamIgnoresTheModes)
{
    HvByteArrayOutputStream bytes(0);
    HvErrorStream errors(&bytes);
    EXPECT_EQ(&bytes, errors.getDebugStream(2u));
    EXPECT_EQ(&bytes, errors.getDebugStream(0u));
    EXPECT_EQ(sink(), errors.getDebugStream(3u));
    EXPECT_EQ(sink(), errors.getDebugStream(4u));
    errors.setDebugMode("x");
    EXPECT_EQ(&bytes, errors.getDebugStream(2u));
    EXPECT_EQ(sink(), errors.getDebugStream(3u));

    HvErrorStream noTarget(nullptr);
    EXPECT_EQ(&noTarget, noTarget.getDebugStream(2u));
    EXPECT_EQ(sink(), noTarget.getDebugStream(3u));
}

// ---- standard error ----

TEST(HvErrorStream, WithoutTargetWritesToStandardError)
{
    HvErrorStream errors(nullptr);
    testing::internal::CaptureStderr();
    errors.write('a');
    errors.write("bc");
    errors.write("--de--", 2, 2);
    errors.write(static_cast<const void*>(nullptr), 3, 0);
    errors << "f" << 7 << endl;
    errors.flush();
    std::string captured = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::string("abc\0def7\n", 9), captured);
}

// ---- ownership ----

TEST(HvErrorStream, DoesNotOwnItsTarget)
{
    int destroyed = 0;
    HvHandle<RecordingOutputStream> target(new RecordingOutputStream(&destroyed));
    {
        HvHandle<HvErrorStream> errors(new HvErrorStream(target.get()));
        errors->write('a');
        EXPECT_EQ(1, target->getRefCount());
    }
    EXPECT_EQ(0, destroyed);
    target->write('b');
    EXPECT_EQ((std::vector<int>{'a', 'b'}), target->values);
    target = HvHandle<RecordingOutputStream>();
    EXPECT_EQ(1, destroyed);
}

// ---- process default ----

TEST(HvErrorStream, FirstSetDefaultInAFreshProcessReturnsNil)
{
    // Checked in a fresh process: nothing there has made the default yet.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            HvErrorStream* mine = new HvErrorStream(nullptr);
            bool ok = HvErrorStream::sSetDefault(mine) == nullptr;
            ok = ok && HvErrorStream::sGetDefault() == mine;
            _exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}

TEST(HvErrorStream, DefaultIsMadeOnceWithoutTargetAtLevelThree)
{
    HvErrorStream* first = HvErrorStream::sGetDefault();
    ASSERT_NE(nullptr, first);
    EXPECT_EQ(first, HvErrorStream::sGetDefault());
    EXPECT_EQ(3u, first->getLevel());
    // Without a target the stream is its own debug stream, writing to standard error.
    EXPECT_EQ(first, first->getDebugStream(0u));

    testing::internal::CaptureStderr();
    first->write("zz");
    std::string captured = testing::internal::GetCapturedStderr();
    EXPECT_EQ(std::string("zz\0", 3), captured);
}

TEST(HvErrorStream, DefaultSurvivesHandlesTakenOnIt)
{
    HvErrorStream* first = HvErrorStream::sGetDefault();
    int count = first->getRefCount();
    {
        HvHandle<HvOutputStream> held(first);
        EXPECT_EQ(count + 1, first->getRefCount());
    }
    EXPECT_EQ(count, first->getRefCount());
    EXPECT_EQ(first, HvErrorStream::sGetDefault());
    EXPECT_EQ(3u, first->getLevel());
}

TEST(HvErrorStream, SetDefaultReturnsThePreviousOne)
{
    HvErrorStream* original = HvErrorStream::sGetDefault();
    HvByteArrayOutputStream bytes(0);
    HvErrorStream mine(&bytes);

    EXPECT_EQ(original, HvErrorStream::sSetDefault(&mine));
    EXPECT_EQ(&mine, HvErrorStream::sGetDefault());
    *HvErrorStream::sGetDefault() << "via default";
    EXPECT_EQ("via default", hvtest::textOf(bytes));

    EXPECT_EQ(&mine, HvErrorStream::sSetDefault(original));
    EXPECT_EQ(original, HvErrorStream::sGetDefault());
}

TEST(HvErrorStream, DefaultMadeHereIsHandedBackForItsNewOwnerToFree)
{
    // Checked in a fresh process, where sGetDefault() makes the default.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_EXIT(
        {
            HvErrorStream* made = HvErrorStream::sGetDefault();
            HvErrorStream* mine = new HvErrorStream(nullptr);
            bool ok = HvErrorStream::sSetDefault(mine) == made;
            ok = ok && made->getRefCount() == 0;
            // Owned by the caller now: a handle takes it and frees it.
            { HvHandle<HvErrorStream> owner(made); }
            _exit(ok ? 0 : 1);
        },
        testing::ExitedWithCode(0), "");
}
