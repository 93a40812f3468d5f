// Result<T>: what a caller that forgot to ask gets, and Result<void>.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "file_reader.h"
#include "pdf_pages.h"
#include "result.h"

namespace {

// A value taken from an error is a fault of the caller; it must say which
// error was ignored, not "bad variant access".
TEST(Result, TakingTheWrongSideThrowsAndNamesTheError)
{
    const tse::Result<tse::Bytes> missing = tse::readFileBounded("/nonexistent/file", 16);
    ASSERT_FALSE(missing);
    try {
        static_cast<void>(missing.value());
        FAIL() << "value() of an error returned";
    } catch (const tse::BadResultAccess& fault) {
        EXPECT_NE(std::string(fault.what()).find(missing.error().message), std::string::npos) << fault.what();
    }
    const tse::Result<std::vector<int>> held = std::vector<int>{1, 2};
    EXPECT_THROW(static_cast<void>(held.error()), tse::BadResultAccess);
    EXPECT_EQ(tse::Result<int>(tse::Error{"none"}).value_or(7), 7);
    EXPECT_EQ(std::move(held).value_or({}).size(), 2u);
}

// Result<void>: a PDF that is none fails with words; the pages a good one
// hands on come before its success.
TEST(Result, VoidCarriesOnlyTheError)
{
    int pages = 0;
    const tse::Result<void> refused =
        tse::renderPdfPages(tse::Bytes{'%', 'P', 'D', 'F'}, [&](int, int, const tse::GreyImage&) { ++pages; });
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().message, "the PDF is damaged or cut off");
    EXPECT_THROW(refused.value(), tse::BadResultAccess);
    EXPECT_EQ(pages, 0);
    const tse::Result<void> fine;
    EXPECT_TRUE(fine);
    EXPECT_NO_THROW(fine.value());
    EXPECT_THROW(static_cast<void>(fine.error()), tse::BadResultAccess);
}

}  // namespace
