#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include "page_report_fixture.h"
#include "support/system_calls.h"

namespace {

class PageReportFailure : public PageReportTest
{
protected:
    /** The text was no JSON: the parser's own words are in the line. */
    void expectParserError()
    {
        const std::string text = firstLogged("Custom_DownloadPictureProcObj", "parser Err %s ");
        EXPECT_GT(text.size(), std::string("parser Err  ").size());
        EXPECT_EQ(text.back(), ' ');
        expectEndedBy(at(118, error("parser Err %s ", text)));
    }
};

TEST_F(PageReportFailure, FileIsMissing)
{
    reportFile("/tmp/no/such/file");
    expectEndedBy(at(77, error(" [Custom] download picture, open file %s error.",
                               " [Custom] download picture, open file /tmp/no/such/file error.")));
}

TEST_F(PageReportFailure, PathIsEmpty)
{
    reportFile("");
    expectEndedBy(at(
        77, error(" [Custom] download picture, open file %s error.", " [Custom] download picture, open file  error.")));
}

TEST_F(PageReportFailure, SizeIsNotToBeHad)
{
    systemCalls().fstatFails = true;
    report(R"({"TaskResultArry":[]})");
    expectEndedBy(at(85, error(" state file %s error.", " state file /tmp/state.json error.")));
}

TEST_F(PageReportFailure, MemoryIsNotToBeHad)
{
    systemCalls().largestArray = 1000;
    report(std::string(1000, ' '));
    expectEndedBy(at(93, error(" malloc pJsonConfig error.")));
}

TEST_F(PageReportFailure, MemoryIsOneByteMoreThanTheFile)
{
    systemCalls().largestArray = 1000;
    const std::string state = R"({"TaskResultArry":[]})";
    report(state + std::string(999 - state.size(), ' '));
    EXPECT_EQ(importInfo(), "[]");
}

TEST_F(PageReportFailure, FileIsADirectory)
{
    ASSERT_EQ(mkdir("/tmp/folder", 0755), 0);
    reportFile("/tmp/folder");
    expectEndedBy(at(100, error("fread error.")));
}

TEST_F(PageReportFailure, FileHas4Gigabytes)
{
    std::ofstream("/tmp/state.json") << R"({"TaskResultArry":[]})";
    ASSERT_EQ(truncate("/tmp/state.json", 1LL << 32), 0);
    reportFile("/tmp/state.json");
    expectEndedBy(at(100, error("fread error.")));
}

TEST_F(PageReportFailure, PipeIsNotWaitedFor)
{
    ASSERT_EQ(mkfifo("/tmp/pipe", 0600), 0);
    reportFile("/tmp/pipe");
    expectParserError();
}

TEST_F(PageReportFailure, FileIsEmpty)
{
    report("");
    expectParserError();
}

TEST_F(PageReportFailure, FileIsBlank)
{
    report(" \n\t");
    expectParserError();
}

class NoJson : public PageReportFailure, public testing::WithParamInterface<const char*>
{
};

TEST_P(NoJson, IsAParserError)
{
    report(GetParam());
    expectParserError();
}

INSTANTIATE_TEST_SUITE_P(PageReportFailure, NoJson,
                         testing::Values("{", R"({"TaskResultArry":[)", R"({"TaskResultArry":})", "no json", "{]",
                                         R"({"TaskResultArry":[]}})", R"({'TaskResultArry':[]})"));

TEST_F(PageReportFailure, FileIsNestedTooDeep)
{
    report(R"({"TaskResultArry":)" + std::string(10000, '[') + std::string(10000, ']') + "}");
    expectParserError();
}

/** A state whose results cannot be reported, and why. */
struct BadState
{
    const char* state;
    const char* reason;
};

class PageReportBadState : public PageReportFailure, public testing::WithParamInterface<BadState>
{
};

TEST_P(PageReportBadState, StopsTheWholeReport)
{
    report(GetParam().state);
    const std::string text = firstLogged("Custom_DownloadPictureProcObj", "faceresultlist_ary parser Err %s ");
    EXPECT_NE(text.find(GetParam().reason), std::string::npos) << text;
    EXPECT_EQ(text.back(), ' ');
    expectEndedBy(at(157, error("faceresultlist_ary parser Err %s ", text)));
}

constexpr char EMPTY_VALUE[] = " empty value. ";
constexpr char WRONG_TYPE[] = "Can not convert ";
constexpr char ANY_REASON[] = "";

INSTANTIATE_TEST_SUITE_P(
    PageReportFailure, PageReportBadState,
    testing::Values(BadState{"{}", EMPTY_VALUE}, BadState{R"({"TaskResultArray":[]})", EMPTY_VALUE},
                    BadState{R"({"TaskResultArry":null})", EMPTY_VALUE},
                    BadState{R"({"TaskResultArry":{}})", WRONG_TYPE},
                    BadState{R"({"TaskResultArry":"[]"})", WRONG_TYPE}, BadState{R"({"TaskResultArry":5})", WRONG_TYPE},
                    BadState{"[]", WRONG_TYPE}, BadState{R"([{"ID":"A","RESULT_TYPE_E":0}])", WRONG_TYPE},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":0},{"RESULT_TYPE_E":0}]})", EMPTY_VALUE},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":0},{"ID":"B"}]})", EMPTY_VALUE},
                    BadState{R"({"TaskResultArry":[{"ID":null,"RESULT_TYPE_E":0}]})", EMPTY_VALUE},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":null}]})", EMPTY_VALUE},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":"three"}]})", ANY_REASON},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":""}]})", ANY_REASON},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":{}}]})", ANY_REASON},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":0},7]})", WRONG_TYPE},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":0},"text"]})", WRONG_TYPE},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":0},[]]})", WRONG_TYPE},
                    BadState{R"({"TaskResultArry":[{"ID":"A","RESULT_TYPE_E":0},null]})", EMPTY_VALUE}));

TEST_F(PageReportFailure, NothingStaysFromAFailedReport)
{
    report("{}");
    report(R"({"TaskResultArry":[]})");
    EXPECT_EQ(importInfo(), "[]");
}

}  // namespace
