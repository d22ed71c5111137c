#include <HvUtil/HvOutputSink.h>

#include <HvUtil/HvByteArray.h>
#include <HvUtil/HvByteArrayOutputStream.h>
#include <HvUtil/HvErrorStream.h>

#include <gtest/gtest.h>

#include <string>

TEST(HvOutputSink, OneInstanceServesTheProcess)
{
    HvOutputSink& first = HvOutputSink::sGetInstance();
    HvOutputSink& second = HvOutputSink::sGetInstance();
    EXPECT_EQ(&first, &second);
}

TEST(HvOutputSink, DiscardsEverythingWritten)
{
    HvOutputSink& sink = HvOutputSink::sGetInstance();
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    sink.write('a');
    sink.write("abc", 3, 0);
    sink.write(static_cast<const void*>(nullptr), 3, 0);
    HvHandle<HvByteArray> array = HvByteArray::sCreate("array");
    sink.write(array.get(), 0, 0);
    HvOutputStream& result = sink << "text" << 42 << 1.5 << static_cast<const void*>(&sink) << endl;
    sink.flush();
    std::string out = testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(&sink, &result);
    EXPECT_EQ("", out);
    EXPECT_EQ("", err);
    // The array written is left as it was.
    EXPECT_EQ("array", std::string(reinterpret_cast<char*>(array->getData()), array->getSize()));
}

TEST(HvOutputSink, HandlesTakenOnItNeverFreeIt)
{
    HvOutputSink& sink = HvOutputSink::sGetInstance();
    int count = sink.getRefCount();
    EXPECT_GE(count, 1);
    {
        HvHandle<HvOutputStream> held(&sink);
        EXPECT_EQ(count + 1, sink.getRefCount());
    }
    EXPECT_EQ(count, sink.getRefCount());
    EXPECT_EQ(&sink, &HvOutputSink::sGetInstance());
    sink.write('x');
}

TEST(HvOutputSink, IsWhatTheErrorStreamHandsOutForSuppressedOutput)
{
    HvByteArrayOutputStream bytes(0);
    HvErrorStream errors(&bytes);
    HvOutputStream* debug = errors.getDebugStream(3u);
    EXPECT_EQ(&HvOutputSink::sGetInstance(), debug);
    EXPECT_NE(nullptr, dynamic_cast<HvOutputSink*>(debug));
    *debug << "dropped";
    EXPECT_EQ(0u, bytes.getCount());
}
