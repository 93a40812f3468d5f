// The verifier's console: what each level prints and keeps, and a stream
// that comes back as it was.
#include <gtest/gtest.h>

#include <iostream>
#include <sstream>
#include <string>

#include "myutils.h"

namespace {

// Captures std::cout. The buffers and the switch are process-wide: start from
// empty buffers and leave printing on for whatever runs after.
struct ConsoleMessages : ::testing::Test {
    std::ostringstream out, message;  // one message stream, reused as callers do
    std::streambuf* previous = std::cout.rdbuf(out.rdbuf());
    void SetUp() override { clearErrorMsg(ERROR_ALL); }
    ~ConsoleMessages() override
    {
        std::cout.rdbuf(previous);
        setConsoleOutput(true);
    }
    template <typename T>
    void send(const T& value, int level)
    {
        message << value;
        outputMsg(message, static_cast<ERROR_TYPE>(level));
    }
};

// ERROR_ALL joins the buffers QR, LOG, CMP, with one extra newline before the
// second and the third part whenever anything came before, even if it is empty.
TEST_F(ConsoleMessages, EachLevelPrintsAndCollectsInItsBuffers)
{
    const std::pair<int, std::string> cases[] = {{ERROR_NONE, ""},   {ERROR_QR, "x\n\n\n"},        {ERROR_LOG, "x\n\n"},
                                                 {ERROR_CMP, "x\n"}, {ERROR_ALL, "x\n\nx\n\nx\n"}, {7, ""}};
    for (const auto& [level, joined] : cases) {
        send("x", level);
        EXPECT_EQ(getErrorMsg(ERROR_ALL), joined) << level;
    }
    EXPECT_EQ(out.str(), "x\nx\nx\nx\nx\nx\n");  // and the stream was emptied each time
}

TEST_F(ConsoleMessages, ReadingAndClearingTouchOnlyTheirLevel)
{
    for (auto [text, level] : {std::pair{"first", ERROR_LOG},
                               {"two\nlines", ERROR_LOG},
                               {"", ERROR_LOG},
                               {"qr", ERROR_QR},
                               {"cmp", ERROR_CMP}})
        send(text, level);
    EXPECT_EQ(out.str(), "first\ntwo\nlines\n\nqr\ncmp\n");
    EXPECT_EQ(getErrorMsg(ERROR_NONE) + getErrorMsg(static_cast<ERROR_TYPE>(7)), "");
    for (int level : {int{ERROR_NONE}, 7, int{ERROR_CMP}}) clearErrorMsg(static_cast<ERROR_TYPE>(level));
    EXPECT_EQ(getErrorMsg(ERROR_LOG), "first\ntwo\nlines\n\n");
    send("later", ERROR_LOG);
    EXPECT_EQ(getErrorMsg(ERROR_ALL), "qr\n\nlater\n\n");
    send("everywhere", ERROR_ALL);
    clearErrorMsg(ERROR_ALL);
    EXPECT_EQ(getErrorMsg(ERROR_LOG) + getErrorMsg(ERROR_QR) + getErrorMsg(ERROR_CMP), "");
}

// A silenced message is still collected; a failed stream comes back good,
// with its number base kept.
TEST_F(ConsoleMessages, StreamIsResetButKeepsItsFormatting)
{
    setConsoleOutput(false);
    message << std::hex;
    send(255, ERROR_QR);
    setConsoleOutput(true);
    (message << "a").setstate(std::ios::badbit);
    send("lost", ERROR_NONE);
    send(255, ERROR_NONE);
    EXPECT_EQ(out.str(), "a\nff\n");
    EXPECT_EQ(getErrorMsg(ERROR_QR), "ff\n");
}

}  // namespace
