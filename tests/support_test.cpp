#include <thread>

#include <gmock/gmock.h>

#include "run_report.h"
#include "support.h"
#include "test_support.h"

namespace {

std::string Logged(const char* text) {
    testing::internal::CaptureStdout();
    LogMessage("%s", text);
    return testing::internal::GetCapturedStdout();
}

TEST(Log, TagsThreadsInTheOrderOfTheirAppearance) {
    const std::uint32_t first = RegisterThread();
    EXPECT_EQ(Logged("x").substr(11), FormatText("[T%02u] x", first));
    std::thread([first] { EXPECT_EQ(Logged("y").substr(11), FormatText("[T%02u] y", first + 1)); }).join();
    EXPECT_EQ(RegisterThread(), first + 2); // numbers are not given twice
    EXPECT_EQ(Logged("z").substr(11), FormatText("[T%02u] z", first + 2));
}

TEST(Log, LinesOfThreadsNeverMix) {
    testing::internal::CaptureStdout();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i)
        threads.emplace_back([] {
            for (int line = 0; line < 200; ++line)
                LogMessage("%s %s\n", "one", "line");
        });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_THAT(Messages(testing::internal::GetCapturedStdout()), testing::MatchesRegex("(one line\n){800}"));
}

TEST(Log, FailuresNameProgramModuleAndLine) {
    testing::internal::CaptureStderr();
    LogFailure("%s: %d\n", "text", 7);
    const std::string line = std::to_string(__LINE__ - 1);
    LogFailureAt({"a/b.cpp", 12}, "x\n");
    LogError("y\n");
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_THAT(log, testing::HasSubstr("] vondral[support_test.cpp," + line + "]: text: 7\n"));
    EXPECT_THAT(log, testing::HasSubstr("] vondral[b.cpp,12]: x\n"));
    EXPECT_THAT(log, testing::EndsWith("] vondral: y\n"));
}

TEST(Text, AmountsChangeUnitsAboveTheLimitOnly) {
    using Row = std::tuple<ScaledAmount (*)(double), double, double, int>;
    for (const auto& [scale, amount, value, unit] : {Row{ScaleDecimal, 2000, 2000, 0},
                                                     {ScaleDecimal, 2001, 2.001, 1},
                                                     {ScaleDecimal, 2000001, 2.000001, 2},
                                                     {ScaleDecimal, 5e12, 5000, 3},
                                                     {ScaleBinary, 2048, 2048, 0},
                                                     {ScaleBinary, 2049, 2049 / 1024.0, 1},
                                                     {ScaleBinary, 4096.0 * 1024 * 1024 * 1024, 4096, 3}}) {
        const ScaledAmount scaled = scale(amount);
        EXPECT_DOUBLE_EQ(scaled.value, value) << amount;
        EXPECT_EQ(scaled.unit, unit) << amount;
    }
    Capture capture;
    ReportObject(528, {}); // phases that took no time have no rate
    ReportObject(0, {});
    EXPECT_EQ(capture.Take(), "Size: 528.000  B\nSize: 0.000  B\n");
}

} // namespace
