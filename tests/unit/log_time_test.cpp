// The times a log carries (UTCTime, GeneralizedTime) and those of the
// texts beside it (ISO 8601), read and written back, and the reasons that
// quote a refused text.
#include <gtest/gtest.h>

#include <optional>
#include <string>

#include "civil_time.h"
#include "log_time.h"

namespace {

TEST(LogTime, ParsesAndWritesEveryForm)
{
    const struct {
        char form;  // 'U' UTCTime, 'G' GeneralizedTime, 'I' ISO 8601
        std::string text;
        std::string iso;  // "" when the text must be refused
    } cases[] = {
        {'U', "491231235959Z", "2049-12-31T23:59:59.000Z"},
        {'U', "500101000000Z", "1950-01-01T00:00:00.000Z"},
        {'U', "0002290000Z", "2000-02-29T00:00:00.000Z"},
        {'U', "0102290000Z", ""},
        {'U', "2108021128Z5", ""},
        {'U', "21080211285Z", ""},
        {'G', "20000229000000Z", "2000-02-29T00:00:00.000Z"},
        {'G', "21000229000000Z", ""},
        {'G', "20210802112858.5Z", "2021-08-02T11:28:58.500Z"},
        {'G', "20210802112858.123456Z", "2021-08-02T11:28:58.123456Z"},
        {'G', "20210802112858.Z", ""},
        {'G', "20210802112858.1aZ", ""},
        {'G', "20211301000000Z", ""},
        {'G', "20210802112860Z", ""},
        {'I', "2021-08-02T11:28:58.000Z", "2021-08-02T11:28:58.000Z"},
        {'I', "2021-08-02T13:28:58+02:00", "2021-08-02T11:28:58.000Z"},
        {'I', "2021-08-02T06:28:58-0500", "2021-08-02T11:28:58.000Z"},
        {'I', "2021-08-02 11:28", "2021-08-02T11:28:00.000Z"},
        {'I', "2021-08-02T11:28:58+2:00", ""},
        {'I', "2021-02-29T00:00:00Z", ""},
        {'I', "2021-08-02T11:28:58.Z", ""},
        {'I', "02.08.2021 11:28", ""},
    };
    for (const auto& c : cases) {
        std::optional<tse::LogTime> time;
        if (c.form == 'I') {
            if (const auto parsed = tse::parseIsoTime(c.text))
                time = tse::LogTime{{}, parsed->seconds, parsed->fraction, {}};
        } else {
            const tse::Result<tse::LogTime> parsed =
                c.form == 'U' ? tse::parseUtcTime(c.text) : tse::parseGeneralizedTime(c.text);
            if (parsed) time = *parsed;
        }
        EXPECT_EQ(time ? time->iso() : "", c.iso) << c.text;
    }
    EXPECT_EQ(tse::isoSeconds(-1), "1969-12-31T23:59:59Z");
    EXPECT_EQ(tse::utcTimeText(951782400, false), "0002290000Z");
    EXPECT_EQ(tse::generalizedTimeText(4107542399, "25"), "21000228235959.25Z");
    // A reason quotes the text printably, however hostile the bytes.
    const std::string reason = tse::parseUtcTime(std::string("21\n\x1B[2J") + std::string(100, 'x')).error().message;
    EXPECT_EQ(reason.find_first_of("\n\x1B"), std::string::npos) << reason;
    EXPECT_LT(reason.size(), 120u) << reason;
}

}  // namespace
