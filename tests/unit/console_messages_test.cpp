#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>

#include "myutils.h"

namespace {

// Redirects std::cout into a string for the lifetime of the object.
class CapturedCout {
public:
    CapturedCout() : previous_(std::cout.rdbuf(captured_.rdbuf())) {}
    ~CapturedCout() { std::cout.rdbuf(previous_); }
    CapturedCout(const CapturedCout&) = delete;
    CapturedCout& operator=(const CapturedCout&) = delete;
    std::string text() const { return captured_.str(); }

private:
    std::ostringstream captured_;
    std::streambuf* previous_;
};

// The buffers and the switch are process-wide: start from empty buffers
// whatever ran before, and leave printing on for whatever runs after.
class ConsoleMessages : public ::testing::Test {
protected:
    void SetUp() override { clearErrorMsg(ERROR_ALL); }
    void TearDown() override { setConsoleOutput(true); }

    static void send(const std::string& text, ERROR_TYPE level)
    {
        std::ostringstream message;
        message << text;
        outputMsg(message, level);
    }
};

TEST_F(ConsoleMessages, EachLevelPrintsAndCollectsInItsBuffers)
{
    const struct {
        int level;
        bool qr, log, cmp;
    } cases[] = {
        {ERROR_NONE, false, false, false}, {ERROR_QR, true, false, false},  {ERROR_LOG, false, true, false},
        {ERROR_CMP, false, false, true},   {ERROR_ALL, true, true, true},   {7, false, false, false},
    };
    for (const auto& c : cases) {
        std::ostringstream message;
        message << "[ERROR] x";
        CapturedCout out;
        outputMsg(message, static_cast<ERROR_TYPE>(c.level));
        EXPECT_EQ(out.text(), "[ERROR] x\n") << c.level;
        EXPECT_EQ(message.str(), "") << c.level;
        EXPECT_EQ(getErrorMsg(ERROR_QR), c.qr ? "[ERROR] x\n" : "") << c.level;
        EXPECT_EQ(getErrorMsg(ERROR_LOG), c.log ? "[ERROR] x\n" : "") << c.level;
        EXPECT_EQ(getErrorMsg(ERROR_CMP), c.cmp ? "[ERROR] x\n" : "") << c.level;
    }
}

TEST_F(ConsoleMessages, AllLevelJoinsBuffersWithSeparatorsAndDrainsThem)
{
    const struct {
        const char *qr, *log, *cmp, *joined;
    } cases[] = {
        {"m", "m", "m", "m\n\nm\n\nm\n"},
        {"a", nullptr, nullptr, "a\n\n\n"},
        {nullptr, "b", nullptr, "b\n\n"},
        {nullptr, nullptr, "c", "c\n"},
        {nullptr, "b", "c", "b\n\nc\n"},
        {nullptr, nullptr, nullptr, ""},
    };
    CapturedCout out;
    for (const auto& c : cases) {
        if (c.qr != nullptr) send(c.qr, ERROR_QR);
        if (c.log != nullptr) send(c.log, ERROR_LOG);
        if (c.cmp != nullptr) send(c.cmp, ERROR_CMP);
        EXPECT_EQ(getErrorMsg(ERROR_ALL), c.joined) << c.joined;
        EXPECT_EQ(getErrorMsg(ERROR_ALL), "") << c.joined;
    }
}

TEST_F(ConsoleMessages, ReadingConsumesOnlyTheRequestedLevel)
{
    CapturedCout out;
    send("first", ERROR_LOG);
    send("two\nlines", ERROR_LOG);
    send("", ERROR_LOG);
    send("qr", ERROR_QR);
    EXPECT_EQ(out.text(), "first\ntwo\nlines\n\nqr\n");

    EXPECT_EQ(getErrorMsg(ERROR_NONE), "");
    EXPECT_EQ(getErrorMsg(static_cast<ERROR_TYPE>(7)), "");
    EXPECT_EQ(getErrorMsg(ERROR_LOG), "first\ntwo\nlines\n\n");
    EXPECT_EQ(getErrorMsg(ERROR_LOG), "");
    send("later", ERROR_LOG);
    EXPECT_EQ(getErrorMsg(ERROR_LOG), "later\n");

    send("cmp", ERROR_CMP);
    clearErrorMsg(ERROR_NONE);
    clearErrorMsg(static_cast<ERROR_TYPE>(7));
    clearErrorMsg(ERROR_CMP);
    EXPECT_EQ(getErrorMsg(ERROR_CMP), "");
    EXPECT_EQ(getErrorMsg(ERROR_QR), "qr\n");
}

TEST_F(ConsoleMessages, ConsoleOffStillCollectsAndEmptiesTheStream)
{
    CapturedCout out;
    setConsoleOutput(false);
    std::ostringstream message;
    message << "[ERROR] quiet";
    outputMsg(message, ERROR_QR);
    EXPECT_EQ(message.str(), "");
    message << "info";
    outputMsg(message, ERROR_NONE);
    setConsoleOutput(true);
    send("loud", ERROR_NONE);
    EXPECT_EQ(out.text(), "loud\n");
    EXPECT_EQ(getErrorMsg(ERROR_QR), "[ERROR] quiet\n");
}

TEST_F(ConsoleMessages, StreamStateIsResetButFormattingCarriesOver)
{
    CapturedCout out;
    std::ostringstream message;
    message << std::hex << "a" << 255;
    message.setstate(std::ios::badbit);
    message << "lost";
    outputMsg(message, ERROR_NONE);
    EXPECT_TRUE(message.good());
    message << 255;
    outputMsg(message, ERROR_NONE);
    EXPECT_EQ(out.text(), "aff\nff\n");
}

}  // namespace
