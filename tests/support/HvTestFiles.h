// Scratch files and descriptor checks for the file-stream tests.
#ifndef HVUTIL_TESTS_HVTESTFILES_H
#define HVUTIL_TESTS_HVTESTFILES_H

#include <HvUtil/HvException.h>
#include <HvUtil/HvSystemError.h>

#include <tests/support/HvTestSupport.h>

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace hvtest {

// A scratch directory of its own for each test, removed afterwards.
class ScratchDirectoryTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        char pattern[] = "/tmp/HvFileStreamTest.XXXXXX";
        ASSERT_NE(nullptr, ::mkdtemp(pattern));
        m_dir = pattern;
    }
    void TearDown() override { std::filesystem::remove_all(m_dir); }

    std::string pathOf(const std::string& name) const { return m_dir + "/" + name; }

    // Creates or truncates the file at `path` and writes `content` to it.
    static void writeFile(const std::string& path, const std::string& content)
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        out << content;
        ASSERT_TRUE(out.good()) << path;
    }

    static std::string contentOf(const std::string& path)
    {
        std::ifstream in(path, std::ios::binary);
        std::ostringstream all;
        all << in.rdbuf();
        return all.str();
    }

    std::string m_dir;
};

inline bool isOpen(int fd)
{
    return ::fcntl(fd, F_GETFD) != -1;
}

// Checks that f throws HvSystemError with this message and error number.
template <class F>
void expectSystemError(F f, const std::string& message, int errorNumber)
{
    HvHandle<HvException> e = hvtest::thrownBy(f);
    ASSERT_FALSE(e.isNull()) << "no exception";
    EXPECT_STREQ("HvSystemError", e->getClassName());
    EXPECT_EQ(message, e->getMessage().c_str());
    HvSystemError* error = dynamic_cast<HvSystemError*>(e.get());
    ASSERT_NE(nullptr, error);
    EXPECT_EQ(errorNumber, error->getErrorNumber());
}

} // namespace hvtest

#endif
