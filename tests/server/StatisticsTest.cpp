// What whole servers count, beside clients that call, hosts that hang, and starts and stops.
#include <atomic>
#include <chrono>
#include <fstream>
#include <future>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "FakeHost.h"
#include "FigureReaders.h"
#include "Isolation.h"
#include "ServerFixture.h"
#include "ServerStatistics.h"
#include "StatisticsForm.h"
#include "WaitUntil.h"

namespace {

using testing::HasSubstr;

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kNoEntry = 2;

class StatisticsServerTest : public ServerFixture {
protected:
    ServerStatistics Statistics() {
        ServerStatistics statistics;
        Server().GetStatistics(&statistics);
        return statistics;
    }
    CCallStatistics::ProcedureFigures Of(const std::string& sProcedure, const std::string& sProgram = "nfs") {
        for (const auto& figures : Statistics().vProcedures) {
            if (sProgram == figures.pcProgram && sProcedure == figures.pcProcedure) {
                return figures;
            }
        }
        throw std::out_of_range(sProcedure);
    }
    std::uint64_t Calls(const std::string& sProcedure, const std::string& sProgram = "nfs") {
        return Of(sProcedure, sProgram).latency.nCalls;
    }
    CHostAnswers::Figures Answers(CHostAnswers::Kind kind) { return Statistics().registries.vAnswers[kind]; }
    void Restart(const std::string& sFile) {
        Server().StopServer();
        ServerOptions options;
        options.sStatisticsFile = sFile;
        Server().SetOptions(options);
        Start();
    }

    TempFolder m_Other;
};

/// In a call with AUTH_NONE, mark, head and a handle of 56 bytes.
constexpr std::uint64_t kHeadBytes = 44;
constexpr std::uint64_t kHandleBytes = 60;
/// In a reply: mark, head and accept status.
constexpr std::uint64_t kReplyHeadBytes = 28;
constexpr std::uint64_t kFattrBytes = 84;

TEST_F(StatisticsServerTest, CallsErrorsAndBytesAreCountedExactlyByProcedure) {
    WriteWholeFile(Folder() / "file", std::string(5000, 'x'));
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sFile;
    ASSERT_EQ(client.Lookup(sRoot, "file", sFile), kOk);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(client.Lookup(sRoot, "none", sFile), kNoEntry);
    }
    ASSERT_EQ(client.Lookup(sRoot, "file", sFile), kOk);
    Fattr3 attributes;
    for (int i = 0; i < 100; ++i) {
        ASSERT_EQ(client.Getattr(sFile, attributes), kOk);
    }
    std::string sData;
    bool bEof = false;
    ASSERT_EQ(client.Read(sFile, 0, 4096, sData, bEof), kOk);
    std::uint32_t iCount = 0;
    ASSERT_EQ(client.Write(sFile, 0, "abcde", iCount), kOk);
    EXPECT_FALSE(client.Mnt("no such export"));

    EXPECT_EQ(Calls("LOOKUP"), 5U);
    EXPECT_EQ(Of("LOOKUP").nErrors, 3U);
    EXPECT_EQ(Of("LOOKUP").nBytesIn, 5 * (kHeadBytes + kHandleBytes + 8));
    EXPECT_EQ(Calls("GETATTR"), 100U);
    EXPECT_EQ(Of("GETATTR").nErrors, 0U);
    EXPECT_EQ(Of("GETATTR").nBytesIn, 100 * (kHeadBytes + kHandleBytes));
    EXPECT_EQ(Of("GETATTR").nBytesOut, 100 * (kReplyHeadBytes + 4 + kFattrBytes));
    EXPECT_EQ(Calls("READ"), 1U);
    EXPECT_EQ(Of("READ").nBytesIn, kHeadBytes + kHandleBytes + 12);
    EXPECT_EQ(Of("READ").nBytesOut, kReplyHeadBytes + 4 + 4 + 12 + 4096) << "without attributes";
    EXPECT_EQ(Of("WRITE").nBytesIn, kHeadBytes + kHandleBytes + 16 + 4 + 8);
    EXPECT_EQ(Calls("MNT", "mount"), 2U);
    EXPECT_EQ(Of("MNT", "mount").nErrors, 1U);
    for (const char* pcNever : {"NULL", "CREATE", "READDIR", "OTHER"}) {
        EXPECT_EQ(Calls(pcNever), 0U) << pcNever;
    }
    const auto latency = Of("GETATTR").latency;
    EXPECT_GT(latency.GetPercentile(0.5), 0U);
    EXPECT_LE(latency.GetPercentile(0.5), latency.GetPercentile(0.99));
    EXPECT_LE(latency.GetPercentile(0.99), latency.lMax);
    EXPECT_LE(latency.lMax, latency.lSum);
}

TEST_F(StatisticsServerTest, RefusalsAreErrorsOfTheirProcedures) {
    RpcClient portmapper(Transport::kTcp, 111);
    EXPECT_EQ(portmapper.Call(kPortmapProgram, 2, 4, "").iAcceptStatus, kAcceptProcUnavail);
    RpcClient nfs(Transport::kUdp, 2049);
    EXPECT_EQ(nfs.Call(kNfsProgram, 4, 1, "").iAcceptStatus, kAcceptProcUnavail) << "before version 3 was spoken";
    EXPECT_EQ(nfs.Call(kNfsProgram, 3, 0, "").iAcceptStatus, kAcceptSuccess);
    EXPECT_EQ(Calls("DUMP", "portmap"), 1U);
    EXPECT_EQ(Of("DUMP", "portmap").nErrors, 1U);
    EXPECT_EQ(Calls("OTHER"), 1U);
    EXPECT_EQ(Of("OTHER").nErrors, 1U);
    EXPECT_EQ(Calls("NULL"), 1U);
    EXPECT_EQ(Of("NULL").nErrors, 0U);
    EXPECT_EQ(Of("NULL").nBytesIn, 40U);
    EXPECT_EQ(Of("NULL").nBytesOut, 24U);
}

TEST_F(StatisticsServerTest, ConnectionsSizesAndUpTimeAreThoseOfNow) {
    for (int i = 0; i < 60; ++i) {
        WriteWholeFile(Folder() / ("f" + std::to_string(i)), "x");
    }
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    const NfsClient second;
    EXPECT_TRUE(WaitUntil([this] { return Statistics().vConnections[1].figures.nUsed == 2; }));
    std::string sFile;
    std::string sData;
    bool bEof = false;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(client.Lookup(sRoot, "f" + std::to_string(i), sFile), kOk);
        ASSERT_EQ(client.Read(sFile, 0, 10, sData, bEof), kOk);
    }
    std::vector<std::string> vsNames;
    ASSERT_EQ(client.Readdir(sRoot, vsNames, 512), kOk);
    WriteWholeFile(Folder() / "disk", "");
    Server().OpenRedirectedFile((Folder() / "disk").c_str(), 1000, false, 0, 0);
    for (int i = 0; i < 7; ++i) {
        ASSERT_TRUE(Server().AddRedirectedFileSegment((Folder() / "disk").c_str(), nullptr, 0, i * 10, 10, nullptr));
    }
    Server().AddSessionInfo("session", Folder().Path().c_str());
    const ServerStatistics statistics = Statistics();
    EXPECT_TRUE(statistics.bServing);
    EXPECT_EQ(statistics.sVersion, "1.4");
    EXPECT_EQ(statistics.sID, "test");
    EXPECT_GT(statistics.upTime.count(), 0);
    EXPECT_GE(statistics.iBegin, statistics.iTime - 60);
    EXPECT_EQ(statistics.vConnections[1].nLimit, 10);
    EXPECT_EQ(statistics.vConnections[2].nLimit, 3);
    EXPECT_EQ(statistics.vConnections[2].figures.nUsed, 2);
    EXPECT_EQ(statistics.registries.nExports, 1U);
    EXPECT_EQ(statistics.registries.nMountedExports, 1U);
    EXPECT_EQ(statistics.registries.nSessions, 1U);
    EXPECT_EQ(statistics.registries.nKnownPaths, 61U) << "the folder and what was listed in it";
    EXPECT_GE(statistics.registries.nCachedDescriptors, 5U);
    EXPECT_EQ(statistics.registries.nListings, 1U);
    EXPECT_GT(statistics.registries.nListingBytes, 100U);
    EXPECT_EQ(statistics.registries.nRedirectedFiles, 1U);
    EXPECT_EQ(statistics.registries.nSegments, 7U);
    EXPECT_FALSE(statistics.receivers) << "nobody steers it";
}

TEST_F(StatisticsServerTest, SegmentsOfAnInfoFileAreItsRecords) {
    WriteWholeFile(Folder() / "disk", "");
    Server().OpenRedirectedFile((Folder() / "disk").c_str(), 1LL << 30, true, 32, 0);
    char vcReason[kReasonBufferSize] = "";
    ASSERT_TRUE(Server().AddRedirectedFileSegment((Folder() / "disk").c_str(), nullptr, 0, 0, 100LL << 20, vcReason))
        << vcReason;
    EXPECT_EQ(Statistics().registries.nSegments, 4U) << "cut at every 32 MiB";
}

TEST_F(StatisticsServerTest, ARepeatedDatagramIsNoOtherCall) {
    NfsClient client(Transport::kUdp);
    const std::string sRoot = MountRoot(client);
    RpcCall call;
    call.iProgram = kNfsProgram;
    call.iProcedure = kNfsMkdir;
    call.sArguments = XdrBuilder().Opaque(sRoot).Opaque("new").U32(0).U32(0).U32(0).U32(0).U32(0).U32(0).Bytes();
    for (int i = 0; i < 3; ++i) {
        client.Nfs().Send(call.Bytes(Transport::kUdp));
        client.Nfs().Receive();
    }
    EXPECT_EQ(Calls("MKDIR"), 1U);
    EXPECT_EQ(Statistics().keptReplies.nRepeated, 2U);
    EXPECT_EQ(Statistics().keptReplies.nReplies, 2U) << "of MNT and MKDIR";
}

TEST_F(StatisticsServerTest, ARunsFiguresStayUntilTheNextOneBegins) {
    NfsClient client;
    Fattr3 attributes;
    ASSERT_EQ(client.Getattr(MountRoot(client), attributes), kOk);
    Server().StopServer();
    EXPECT_FALSE(Statistics().bServing);
    EXPECT_EQ(Statistics().upTime.count(), 0);
    EXPECT_EQ(Calls("GETATTR"), 1U);
    EXPECT_EQ(Statistics().vConnections[1].figures.nUsed, 0);
    EXPECT_EQ(Statistics().vConnections[1].figures.nAccepted, 1U);
    Start();
    EXPECT_EQ(Calls("GETATTR"), 0U);
    EXPECT_EQ(Statistics().vConnections[1].figures.nAccepted, 0U);
}

// ---- Beside a host that hangs

TEST_F(StatisticsServerTest, AHostThatHangsKeepsNobodyFromTheFiguresAndNeitherDoesAStop) {
    const std::string sFile = m_Other / "figures.json";
    Restart(sFile);
    WriteWholeFile(Folder() / "disk", "");
    Server().OpenRedirectedFile((Folder() / "disk").c_str(), 1000, false, 0, 0);
    NfsClient client;
    std::string sDisk;
    ASSERT_EQ(client.Lookup(MountRoot(client), "disk", sDisk), kOk);
    std::promise<void> goOn;
    std::shared_future<void> going = goOn.get_future().share();
    Log().SetHost([going](const Notification&) {
        going.wait();
        return 1;
    });
    std::uint32_t iCount = 0;
    std::thread writer([&] {
        // The stop ends the connection before the answer is there.
        EXPECT_THROW(client.Write(sDisk, 0, "x", iCount), std::runtime_error);
    });
    EXPECT_TRUE(WaitUntil([this] { return Answers(CHostAnswers::kWrite).nUnderWay == 1; }));
    // A slow reader of the same moment: the figures are taken while a stop waits for the host, too.
    std::thread stopper([this] { Server().StopServer(); });
    EXPECT_TRUE(WaitUntil([this] { return !Server().IsServerRunning(); }));
    for (int i = 0; i < 50; ++i) {
        auto figures = std::async(std::launch::async, [this] { return Statistics(); });
        const bool bTaken = figures.wait_for(std::chrono::seconds(20)) == std::future_status::ready;
        if (!bTaken) {
            goOn.set_value();  // so that the test ends
        }
        ASSERT_TRUE(bTaken);
        EXPECT_EQ(figures.get().registries.vAnswers[CHostAnswers::kWrite].nUnderWay, 1U);
    }
    EXPECT_EQ(Calls("WRITE"), 0U) << "it is not done";
    goOn.set_value();
    stopper.join();
    writer.join();
    EXPECT_EQ(Calls("WRITE"), 1U);
    EXPECT_EQ(Answers(CHostAnswers::kWrite).nGranted, 1U);
    EXPECT_EQ(Answers(CHostAnswers::kWrite).nUnderWay, 0U);
    EXPECT_EQ(ReadJson(ReadWholeFile(sFile)).at("host_answers.write.granted"), "1") << "with the last call's figures";
}

TEST_F(StatisticsServerTest, WhatAHostAnswersIsCountedByWhatWasAsked) {
    WriteWholeFile(Folder() / "disk", "");
    Server().OpenRedirectedFile((Folder() / "disk").c_str(), 1000, false, 0, 0);
    std::atomic<int> iAnswer{1};
    Log().SetHost([&iAnswer](const Notification&) { return iAnswer.load(); });
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::string sDisk;
    ASSERT_EQ(client.Lookup(sRoot, "disk", sDisk), kOk);
    std::uint32_t iCount = 0;
    EXPECT_EQ(client.Write(sDisk, 0, "x", iCount), kOk);
    Sattr3 attributes;
    attributes.iSize = 10;
    EXPECT_NE(client.Setattr(sDisk, attributes), kOk);
    iAnswer = -1;
    EXPECT_NE(client.Write(sDisk, 0, "x", iCount), kOk);
    iAnswer = 0;
    EXPECT_EQ(client.Rename(sRoot, "disk", sRoot, "disc"), kOk);
    EXPECT_EQ(client.Remove(sRoot, "disc"), kOk);
    EXPECT_EQ(Answers(CHostAnswers::kWrite).nGranted, 1U);
    EXPECT_EQ(Answers(CHostAnswers::kWrite).nUnanswered, 1U);
    EXPECT_EQ(Answers(CHostAnswers::kAttributes).nRefused, 1U);
    EXPECT_EQ(Answers(CHostAnswers::kRename).nGranted, 1U);
    EXPECT_EQ(Answers(CHostAnswers::kRemove).nGranted, 1U);
}

/// Whoever asks for figures all the time delays no call: many threads that do, beside clients that work.
TEST_F(StatisticsServerTest, FiguresAreTakenWhileClientsWork) {
    WriteWholeFile(Folder() / "file", "content");
    NfsClient client;
    const std::string sRoot = MountRoot(client);
    std::atomic<bool> bStop{false};
    std::atomic<std::uint64_t> nTaken{0};
    std::thread reader([&] {
        std::uint64_t nBefore = 0;
        while (!bStop) {
            const std::uint64_t nNow = Calls("LOOKUP");
            EXPECT_GE(nNow, nBefore);
            nBefore = nNow;
            ++nTaken;
            PrometheusText::Parse(ShowStatistics(Statistics(), StatisticsForm::kPrometheus));
        }
    });
    constexpr std::uint64_t kLookups = 500;
    std::string sHandle;
    for (std::uint64_t i = 0; i < kLookups; ++i) {
        ASSERT_EQ(client.Lookup(sRoot, "file", sHandle), kOk);
    }
    EXPECT_TRUE(WaitUntil([&] { return nTaken > 3; }));
    bStop = true;
    reader.join();
    EXPECT_EQ(Calls("LOOKUP"), kLookups);
}

// ---- The file

TEST_F(StatisticsServerTest, TheFileIsThereWhenTheServerIsAndTellsOfItsEnd) {
    for (const char* pcName : {"figures.json", "figures.prom", "figures.txt"}) {
        const std::string sFile = m_Other / pcName;
        Restart(sFile);
        EXPECT_TRUE(WaitUntil([&] {
            const std::string sText = ReadWholeFile(sFile);
            return sText.find("\"serving\": true") != std::string::npos ||
                   sText.find("nfslib_serving 1\n") != std::string::npos ||
                   sText.find(": serving since ") != std::string::npos;
        })) << ReadWholeFile(sFile);
        NfsClient client;
        Fattr3 attributes;
        ASSERT_EQ(client.Getattr(MountRoot(client), attributes), kOk);
        Server().StopServer();
        EXPECT_THAT(ReadWholeFile(sFile), testing::ContainsRegex("GETATTR\"[,}][^\n]* 1|GETATTR  *1 "));
        EXPECT_NE(::access((sFile + ".tmp").c_str(), F_OK), 0);
    }
    EXPECT_EQ(ReadJson(ReadWholeFile(m_Other / "figures.json")).at("serving"), "false");
    EXPECT_EQ(PrometheusText::Parse(ReadWholeFile(m_Other / "figures.prom")).Get("nfslib_serving"), 0);
    EXPECT_THAT(ReadWholeFile(m_Other / "figures.txt"), HasSubstr(": not serving\n"));
    Server().SetOptions({});
    Start();
}

TEST_F(StatisticsServerTest, AFileThatCannotBeWrittenRefusesTheStart) {
    Server().StopServer();
    Log().Clear();
    const std::string sFile = m_Other / "missing/figures.prom";
    ServerOptions options;
    options.sStatisticsFile = sFile;
    Server().SetOptions(options);
    char vcReason[kReasonBufferSize] = "";
    EXPECT_FALSE(Server().StartServer(0, 0, 0, 0, false, vcReason));
    const std::string sReason =
        "Statistics file \"" + sFile + "\": Folder \"" + (m_Other / "missing/") + "\": No such file or directory (2)";
    EXPECT_EQ(vcReason, sReason);
    EXPECT_TRUE(Log().Has("[NfsMain.StartServer] " + sReason, 'e')) << Log().Dump();
    EXPECT_FALSE(Server().IsServerRunning());
    ASSERT_EQ(::mkdir((m_Other / "missing").c_str(), 0755), 0);
    Start();
    EXPECT_EQ(::access(sFile.c_str(), R_OK), 0) << "once it is put right";
}

TEST_F(StatisticsServerTest, AFileHasOneThreadMoreAndWithoutOneThereIsNone) {
    const auto threads = [] {
        std::ifstream status("/proc/self/status");
        std::string sLine;
        while (std::getline(status, sLine) && !sLine.starts_with("Threads:")) {
        }
        return std::stoi(sLine.substr(sLine.find(':') + 1));
    };
    const int nWithout = threads();
    Restart(m_Other / "figures");
    EXPECT_EQ(threads(), nWithout + 1);
    Server().StopServer();
    Server().SetOptions({});
    Start();
    EXPECT_EQ(threads(), nWithout);
}

// ---- Consoles

class StatisticsConsoleTest : public testing::Test {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
    }

    LeakGuard m_Leaks;
    TempFolder m_Folder;
};

TEST_F(StatisticsConsoleTest, TheConsoleOfTheServerShowsFiguresInEachForm) {
    for (const char* pcMode : {"int", "svr"}) {
        ConsoleProcess console({"-md", pcMode, "-id", "test"});
        ASSERT_TRUE(console.WaitForPrompt()) << console.Output();
        EXPECT_THAT(console.Command("stats"), HasSubstr(": not serving\n"));
        console.Command("debug");
        console.Command("start");
        console.Command("mount " + m_Folder.Path() + "=data");
        {
            NfsClient client;
            EXPECT_TRUE(client.Mnt("data"));
        }
        EXPECT_THAT(console.Command("stats"), testing::ContainsRegex("mount    MNT  *1  *0 "));
        const auto json = ReadJson(console.Command("stats json"));
        EXPECT_EQ(json.at("id"), "test");
        EXPECT_EQ(json.at("sizes.mounted_exports"), "1");
        EXPECT_EQ(json.contains("sizes.receivers"), pcMode == std::string("svr"));
        const auto text = PrometheusText::Parse(console.Command("stats prometheus"));
        EXPECT_EQ(text.Get("nfslib_calls_total{program=\"mount\",procedure=\"MNT\"}"), 1);
        EXPECT_EQ(console.Command("stats xml"), "Fail to show statistics. Reason=In-valid input value: xml\n");
        EXPECT_THAT(console.Command("statsx"), HasSubstr("Unknown command: 'statsx'"));
        EXPECT_THAT(console.Command("stats "), HasSubstr("Unknown command: 'stats '"));
        EXPECT_EQ(console.Command("help").find("stats"), std::string::npos);
        EXPECT_EQ(console.Quit(), 0) << console.Output();
    }
}

TEST_F(StatisticsConsoleTest, AClientsConsoleTellsTheWayToTheFileAndItLeadsThere) {
    const std::string sFile = m_Folder / "figures";
    ConsoleProcess server({"-md", "svr", "-id", "srv", "-stats", sFile});
    ASSERT_TRUE(server.WaitForPrompt()) << server.Output();
    ConsoleProcess client({"-md", "cli", "-id", "client"});
    ASSERT_TRUE(client.WaitForPrompt()) << client.Output();
    EXPECT_THAT(client.Command("stats"), HasSubstr("-stats FILE"));
    EXPECT_THAT(client.Command("stats json"), HasSubstr("'exec cat FILE'"));
    client.Command("debug");
    EXPECT_EQ(client.Command("start"), "Start NFS success");
    const std::string sShown = client.Command("exec cat " + sFile);
    EXPECT_THAT(sShown, HasSubstr("NFS server 1.4 (srv), ")) << sShown;
    EXPECT_THAT(sShown, HasSubstr("Return code: 0\n"));
    EXPECT_EQ(client.Quit(), 0) << client.Output();
    EXPECT_EQ(server.Quit(), 0) << server.Output();
    EXPECT_THAT(ReadWholeFile(sFile), HasSubstr("receivers not reached")) << "whatever its number";
}

TEST_F(StatisticsConsoleTest, AFileThatCannotBeWrittenIsToldAtTheStart) {
    ChildOptions options;
    options.vEnvironment = {{"NFSLIB_STATS", "/nonexistent/figures"}};
    ConsoleProcess console({"-md", "int"}, options);
    ASSERT_TRUE(console.WaitForPrompt()) << console.Output();
    console.Command("debug");
    EXPECT_EQ(console.Command("start"),
              "Fail to start NFS. Statistics file \"/nonexistent/figures\": Folder \"/nonexistent/\": No such file or "
              "directory (2)\n");
    EXPECT_EQ(console.Quit(), 0) << console.Output();
}

}  // namespace
