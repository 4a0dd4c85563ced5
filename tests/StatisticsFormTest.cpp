// The forms of a server's figures: read back by strict readers, and the same in each.
#include "StatisticsForm.h"

#include <map>
#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FigureReaders.h"
#include "ServerStatistics.h"
#include "Xdr.h"

namespace {

using testing::HasSubstr;
using testing::Not;

/// A server with something of everything.
ServerStatistics MakeStatistics() {
    CCallStatistics calls;
    const std::size_t iRead = CCallStatistics::FindPlace(100003, 3, 6);
    for (const std::uint64_t lTime : {3000ULL, 4096ULL, 4097ULL, 2000000ULL}) {
        calls.Count({iRead, lTime == 4097, 100, 65664, lTime});
    }
    calls.Count({CCallStatistics::FindPlace(100005, 3, 1), true, 64, 32, 30000000000});
    ServerStatistics statistics;
    statistics.sVersion = "1.4";
    statistics.sID = "srv";
    statistics.bServing = true;
    statistics.iTime = 1700000123;
    statistics.iBegin = 1700000000;
    statistics.upTime = std::chrono::milliseconds(123250);
    statistics.vConnections = {{"portmap", 3, {0, 0, 0}}, {"nfs", 10, {4, 9, 123}}, {"mount", 3, {1, 2, 77}}};
    statistics.vProcedures = calls.ReadProcedures();
    statistics.keptReplies = {5, 1234, 6};
    statistics.registries.nExports = 3;
    statistics.registries.nKnownPaths = 1000000;
    statistics.registries.nCachedDescriptors = 17;
    statistics.registries.nSegments = 4294967296;
    statistics.registries.vAnswers = CHostAnswers().Read();
    statistics.registries.vAnswers[CHostAnswers::kWrite].nGranted = 8;
    statistics.registries.vAnswers[CHostAnswers::kWrite].nUnderWay = 1;
    return statistics;
}

const char* const kAwkwardID = "a \"quoted\" \\ back\nslash\x01 \xC3\xA4 \xFF";

TEST(StatisticsFormTest, AFilesFormIsToldByTheEndOfItsName) {
    EXPECT_EQ(GetFormOfFile("/var/lib/x.json"), StatisticsForm::kJson);
    EXPECT_EQ(GetFormOfFile("x.prom"), StatisticsForm::kPrometheus);
    for (const char* pcTable : {"x", "x.txt", "x.JSON", "x.prom.txt", "/a.json/x", ""}) {
        EXPECT_EQ(GetFormOfFile(pcTable), StatisticsForm::kTable) << pcTable;
    }
    EXPECT_EQ(FindForm("json"), StatisticsForm::kJson);
    EXPECT_EQ(FindForm("prometheus"), StatisticsForm::kPrometheus);
    for (const char* pcOther : {"", "JSON", "json ", "prom", "table"}) {
        EXPECT_EQ(FindForm(pcOther), std::nullopt) << pcOther;
    }
}

TEST(StatisticsFormTest, JsonHoldsEveryFigure) {
    const std::map<std::string, std::string> all = ReadJson(ShowStatistics(MakeStatistics(), StatisticsForm::kJson));
    const std::map<std::string, std::string> expected = {
        {"version", "1.4"},
        {"id", "srv"},
        {"serving", "true"},
        {"time", "1700000123"},
        {"start_time", "1700000000"},
        {"uptime_seconds", "123.25"},
        {"connections.nfs.used", "4"},
        {"connections.nfs.limit", "10"},
        {"connections.nfs.most", "9"},
        {"connections.nfs.accepted", "123"},
        {"procedures[13].program", "nfs"},
        {"procedures[13].procedure", "READ"},
        {"procedures[13].calls", "4"},
        {"procedures[13].errors", "1"},
        {"procedures[13].bytes_in", "400"},
        {"procedures[13].bytes_out", "262656"},
        {"procedures[13].seconds.sum", "0.002011193"},
        {"procedures[13].seconds.p50", "0.000004096"},
        {"procedures[13].seconds.p99.9", "0.002"},
        {"procedures[13].seconds.max", "0.002"},
        {"procedures[31].procedure", "MNT"},
        {"procedures[31].seconds.max", "30"},
        {"repeated_datagrams", "6"},
        {"host_answers.write.granted", "8"},
        {"host_answers.write.under_way", "1"},
        {"sizes.exports", "3"},
        {"sizes.known_paths", "1000000"},
        {"sizes.redirected_segments", "4294967296"},
        {"sizes.kept_replies", "5"},
    };
    for (const auto& [sPath, sValue] : expected) {
        ASSERT_TRUE(all.contains(sPath)) << sPath;
        EXPECT_EQ(all.at(sPath), sValue) << sPath;
    }
    EXPECT_FALSE(all.contains("sizes.receivers")) << "nobody steers it";
}

TEST(StatisticsFormTest, PrometheusHoldsEveryFigure) {
    const auto text = PrometheusText::Parse(ShowStatistics(MakeStatistics(), StatisticsForm::kPrometheus));
    const std::string sRead = "{program=\"nfs\",procedure=\"READ\"}";
    const std::map<std::string, double> expected = {
        {"nfslib_info{version=\"1.4\",id=\"srv\"}", 1},
        {"nfslib_serving", 1},
        {"nfslib_start_time_seconds", 1700000000},
        {"nfslib_uptime_seconds", 123.25},
        {"nfslib_connections{program=\"nfs\"}", 4},
        {"nfslib_connections_limit{program=\"nfs\"}", 10},
        {"nfslib_connections_most{program=\"mount\"}", 2},
        {"nfslib_connections_accepted_total{program=\"nfs\"}", 123},
        {"nfslib_calls_total" + sRead, 4},
        {"nfslib_calls_total{program=\"nfs\",procedure=\"WRITE\"}", 0},
        {"nfslib_call_errors_total" + sRead, 1},
        {"nfslib_received_bytes_total" + sRead, 400},
        {"nfslib_sent_bytes_total" + sRead, 262656},
        {"nfslib_call_duration_seconds_count" + sRead, 4},
        {"nfslib_call_duration_seconds_sum" + sRead, 0.002011193},
        {"nfslib_longest_call_seconds" + sRead, 0.002},
        {"nfslib_host_answers_total{kind=\"write\",answer=\"granted\"}", 8},
        {"nfslib_host_questions{kind=\"write\"}", 1},
        {"nfslib_known_paths", 1000000},
        {"nfslib_redirected_segments", 4294967296},
        {"nfslib_repeated_datagrams_total", 6},
    };
    for (const auto& [sSample, dValue] : expected) {
        ASSERT_TRUE(text.mSamples.contains(sSample)) << sSample;
        EXPECT_DOUBLE_EQ(text.Get(sSample), dValue) << sSample;
    }
    EXPECT_EQ(text.mTypes.at("nfslib_call_duration_seconds"), "histogram");
}

TEST(StatisticsFormTest, BucketsForCollectorsAreExactAtTheirEnds) {
    const auto text = PrometheusText::Parse(ShowStatistics(MakeStatistics(), StatisticsForm::kPrometheus));
    const auto bucket = [&](const std::string& sEnd, const std::string& sProcedure = "READ",
                            const std::string& sProgram = "nfs") {
        return text.Get("nfslib_call_duration_seconds_bucket{program=\"" + sProgram + "\",procedure=\"" + sProcedure +
                        "\",le=\"" + sEnd + "\"}");
    };
    EXPECT_EQ(bucket("0.000004096"), 2) << "3000 and 4096 ns";
    EXPECT_EQ(bucket("0.000008192"), 3) << "and 4097 ns";
    EXPECT_EQ(bucket("0.001048576"), 3);
    EXPECT_EQ(bucket("0.002097152"), 4);
    EXPECT_EQ(bucket("+Inf"), 4);
    EXPECT_EQ(bucket("17.179869184", "MNT", "mount"), 0) << "30 s";
    EXPECT_EQ(bucket("+Inf", "MNT", "mount"), 1);
}

TEST(StatisticsFormTest, ProceduresThatWereNeverCalledHaveNoHistogramAndNoLineInTheTable) {
    const std::string sCollectors = ShowStatistics(MakeStatistics(), StatisticsForm::kPrometheus);
    EXPECT_THAT(sCollectors, Not(HasSubstr("nfslib_call_duration_seconds_count{program=\"nfs\",procedure=\"WRITE\"}")));
    EXPECT_THAT(sCollectors, HasSubstr("nfslib_calls_total{program=\"nfs\",procedure=\"WRITE\"} 0\n"));
    const std::string sTable = ShowStatistics(MakeStatistics(), StatisticsForm::kTable);
    EXPECT_THAT(sTable, HasSubstr("nfs      READ "));
    EXPECT_THAT(sTable, Not(HasSubstr("WRITE")));
}

TEST(StatisticsFormTest, TheTableTellsTimesWithTheirUnits) {
    const std::string sTable = ShowStatistics(MakeStatistics(), StatisticsForm::kTable);
    EXPECT_THAT(sTable, HasSubstr("NFS server 1.4 (srv), "));
    EXPECT_THAT(sTable, HasSubstr(" (0 d 00:02:03)\n"));
    EXPECT_THAT(sTable, HasSubstr("  nfs                      4     10      9       123\n"));
    EXPECT_THAT(sTable,
                HasSubstr("  nfs      READ                 4        1            400         262656   4.1 us     "
                          "2 ms     2 ms     2 ms     2 ms\n"));
    EXPECT_THAT(sTable, HasSubstr("30 s\n"));
    EXPECT_THAT(sTable, HasSubstr("  known paths                       1000000\n"));
    ServerStatistics stopped;
    stopped.sVersion = "1.4";
    EXPECT_THAT(ShowStatistics(stopped, StatisticsForm::kTable), HasSubstr(": not serving\n"));
    EXPECT_THAT(ShowStatistics(stopped, StatisticsForm::kTable), HasSubstr("\nCalls: none\n"));
}

TEST(StatisticsFormTest, AnyNameOfAServerIsEscaped) {
    ServerStatistics statistics = MakeStatistics();
    statistics.sID = kAwkwardID;
    const auto json = ReadJson(ShowStatistics(statistics, StatisticsForm::kJson));
    EXPECT_EQ(json.at("id"), "a \"quoted\" \\ back\nslash\x01 \xC3\xA4 \xEF\xBF\xBD");
    const auto text = PrometheusText::Parse(ShowStatistics(statistics, StatisticsForm::kPrometheus));
    EXPECT_TRUE(
        text.mSamples.contains("nfslib_info{version=\"1.4\",id=\"a \\\"quoted\\\" \\\\ back\\nslash\x01 "
                               "\xC3\xA4 \xEF\xBF\xBD\"}"));
}

TEST(StatisticsFormTest, AServerThatNeverServedHasFiguresToo) {
    for (const bool bReceivers : {false, true}) {
        ServerStatistics statistics;
        statistics.registries.vAnswers = CHostAnswers().Read();
        if (bReceivers) {
            statistics.receivers = ReceiverFigures{5, 1, 2, 30, 4000, 70};
        }
        const auto json = ReadJson(ShowStatistics(statistics, StatisticsForm::kJson));
        EXPECT_EQ(json.at("serving"), "false");
        EXPECT_EQ(json.contains("sizes.receivers_hanging"), bReceivers);
        const auto text = PrometheusText::Parse(ShowStatistics(statistics, StatisticsForm::kPrometheus));
        EXPECT_EQ(text.Get("nfslib_serving"), 0);
        if (bReceivers) {
            EXPECT_EQ(text.Get("nfslib_receivers"), 5);
            EXPECT_EQ(text.Get("nfslib_receiver_dropped_lines"), 70);
        }
    }
}

TEST(StatisticsFormTest, SecondsAreExactAndShort) {
    EXPECT_EQ(ShowSeconds(0), "0");
    EXPECT_EQ(ShowSeconds(1), "0.000000001");
    EXPECT_EQ(ShowSeconds(1280), "0.00000128");
    EXPECT_EQ(ShowSeconds(3000000000), "3");
    EXPECT_EQ(ShowSeconds(10500000000), "10.5");
}

TEST(StatisticsFormTest, WhatIsNoUtf8IsReplacedByteForByte) {
    EXPECT_EQ(MakeUtf8("plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80"), "plain \xC3\xA4 \xE2\x82\xAC \xF0\x9F\x98\x80");
    const std::string sMark = "\xEF\xBF\xBD";
    for (const char* pcBad : {"\xFF", "\x80", "\xC3", "\xC1", "\xF5"}) {
        EXPECT_EQ(MakeUtf8(pcBad), sMark) << Hex(pcBad);
    }
    EXPECT_EQ(MakeUtf8("\xE2\x82"), sMark + sMark) << "cut short";
    EXPECT_EQ(MakeUtf8("\xE0\x80\x80"), sMark + sMark + sMark) << "overlong";
    EXPECT_EQ(MakeUtf8("\xED\xA0\x80"), sMark + sMark + sMark) << "half of a pair";
    EXPECT_EQ(MakeUtf8("\xF4\x90\x80\x80"), sMark + sMark + sMark + sMark) << "beyond the last character";
}

}  // namespace
