// A user of the host who may write inside an export swaps one of its folders with a link that leads out, while a client
// makes every call there is: again and again, as fast as he can, and once at each single step of each call. Whatever is
// answered, nothing outside is read, made, changed or removed.
#include <algorithm>
#include <atomic>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <set>
#include <thread>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ContainmentFixture.h"
#include "Isolation.h"
#include "SoftLimit.h"

namespace {

constexpr const char* kMine = "mine";
constexpr const char* kTheirs = "it is not yours";
constexpr int kRounds = 150;
/// More lines than any call leaves.
constexpr int kMostSteps = 100;

/// Swaps two entries of a folder.
void Swap(const std::string& sOne, const std::string& sOther) {
    EXPECT_EQ(::renameat2(AT_FDCWD, sOne.c_str(), AT_FDCWD, sOther.c_str(), RENAME_EXCHANGE), 0);
}

/// Swaps two entries of a folder as fast as it can. In the end each is what it was at first.
class Swapper {
public:
    Swapper(std::string sOne, std::string sOther) : m_sOne(std::move(sOne)), m_sOther(std::move(sOther)) {
        m_Thread = std::thread([this] {
            bool bSwapped = false;
            while (!m_bEnd || bSwapped) {
                Swap(m_sOne, m_sOther);
                bSwapped = !bSwapped;
            }
        });
    }
    ~Swapper() {
        m_bEnd = true;
        m_Thread.join();
    }
    Swapper(const Swapper&) = delete;
    Swapper& operator=(const Swapper&) = delete;

private:
    std::string m_sOne;
    std::string m_sOther;
    std::atomic<bool> m_bEnd{false};
    std::thread m_Thread;
};

/// Does something when a given number of log lines has come: a call leaves one at most of its steps.
class LineCounter {
public:
    void Arm(int nLines, std::function<void()> action) {
        m_Action = std::move(action);
        m_nLeft = nLines;
    }
    void Count() {
        if (m_nLeft >= 0 && m_nLeft-- == 0) {
            m_Action();
        }
    }
    /// True if it has been done.
    bool Disarm() { return m_nLeft.exchange(-1) < 0; }

private:
    std::atomic<int> m_nLeft{-1};
    std::function<void()> m_Action;
};

class CountingUtilities : public CaptureUtilities {
public:
    CountingUtilities(LogCapture* pCapture, LineCounter* pCounter) : CaptureUtilities(pCapture), m_pCounter(pCounter) {}
    using CaptureUtilities::LogError;
    using CaptureUtilities::LogInfo;
    void LogInfo(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogInfo(pRuntimeParam, pcMessage);
        m_pCounter->Count();
    }
    void LogError(CRuntimeParam* pRuntimeParam, const char* pcMessage) override {
        CaptureUtilities::LogError(pRuntimeParam, pcMessage);
        m_pCounter->Count();
    }

private:
    LineCounter* m_pCounter;
};

class CountingNfsMain : public CNfsMain {
public:
    CountingNfsMain(LogCapture* pCapture, LineCounter* pCounter) : m_pCapture(pCapture), m_pCounter(pCounter) {
        CNfsMain::InitMemberVaribles("test", CRuntimeParam::kLogError);
    }

protected:
    std::unique_ptr<CUtilities> CreateUtilities() override {
        return std::make_unique<CountingUtilities>(m_pCapture, m_pCounter);
    }

private:
    LogCapture* m_pCapture;
    LineCounter* m_pCounter;
};

/// In the export: "dir" and, beside it, "link", which leads to a folder outside. Both hold a "file", a "victim", an
/// "empty" folder and a "full" one with a "file" in it; the one outside also a "secret".
class ContainmentRaceTest : public ServerFixture {
protected:
    void SetUp() override {
        if (!IsIsolated()) {
            GTEST_SKIP() << kNotIsolated;
        }
        m_pFolder = std::make_unique<TempFolder>();
        m_pServer = std::make_unique<CountingNfsMain>(&m_Log, &m_Counter);
        ASSERT_TRUE(m_pServer->Initial(nullptr));
        Start();
        Fill(Folder() / "dir", kMine);
        Fill(m_Outside / "dir", kTheirs);
        WriteWholeFile(m_Outside / "dir/secret", kTheirs);
        ASSERT_EQ(::symlink((m_Outside / "dir").c_str(), (Folder() / "link").c_str()), 0);
        SetSecretTimes(m_Outside.Path());
        m_pClient = MakeSpiedClient("127.0.0.1");
        m_sRoot = MountRoot(*m_pClient);
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, "dir", m_sDir), 0U);
        ASSERT_EQ(m_pClient->Lookup(m_sDir, "file", m_sFile), 0U);
        for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Outside.Path())) {
            m_Before.insert(entry.path());
            m_Watch.Add(entry.path());
        }
        m_Watch.Take();
    }
    void TearDown() override {
        if (m_pClient) {
            EXPECT_THAT(m_Watch.Take(), testing::IsEmpty()) << "something outside was opened or changed";
            std::set<std::string> after;
            for (const auto& entry : std::filesystem::recursive_directory_iterator(m_Outside.Path())) {
                after.insert(entry.path());
                if (entry.is_regular_file()) {
                    EXPECT_EQ(ReadWholeFile(entry.path()), kTheirs);
                }
            }
            EXPECT_EQ(after, m_Before);
        }
        m_pClient.reset();
        ServerFixture::TearDown();
    }
    static void Fill(const std::string& sFolder, const char* pcContent) {
        std::filesystem::create_directories(sFolder + "/empty");
        std::filesystem::create_directories(sFolder + "/full");
        for (const char* pcName : {"/file", "/victim", "/gone", "/lost", "/full/file"}) {
            WriteWholeFile(sFolder + pcName, pcContent);
        }
    }

    /// Counts what went well: a race in which nothing ever does would prove nothing.
    bool Note(const char* pcCall, std::uint32_t iStatus) {
        m_Succeeded[pcCall] += iStatus == 0 ? 1 : 0;
        m_Failed[pcCall] += iStatus != 0 ? 1 : 0;
        return iStatus == 0;
    }
    void ExpectMine(const Fattr3& attributes) {
        if (attributes.iType == 1) {
            EXPECT_LT(attributes.iSize, std::string_view(kTheirs).size()) << "that is the file outside";
        }
    }

    struct Call {
        const char* pcName;
        std::function<std::uint32_t()> make;  ///< makes it, checks the reply and returns its status
    };

    /// All calls that reach files by a path. Each finds what it needs after Restore, or after those before it.
    std::vector<Call> MakeCalls() {
        std::vector<Call> vCalls = MakeCallsOnHandles();
        for (Call& call : MakeCallsOnNames()) {
            vCalls.push_back(std::move(call));
        }
        return vCalls;
    }
    std::vector<Call> MakeCallsOnHandles() {
        return {{"GETATTR",
                 [this] {
                     Fattr3 attributes;
                     const std::uint32_t iStatus = m_pClient->Getattr(m_sFile, attributes);
                     ExpectMine(attributes);
                     return iStatus;
                 }},
                {"ACCESS",
                 [this] {
                     XdrReader reader = m_pClient->Nfs3(kNfsAccess, XdrBuilder().Opaque(m_sFile).U32(0x3F).Bytes());
                     const std::uint32_t iStatus = reader.U32();
                     ExpectMine(ReadPostOpAttr(reader).value_or(Fattr3{}));
                     return iStatus;
                 }},
                {"READ",
                 [this] {
                     std::string sData;
                     bool bEof = false;
                     const std::uint32_t iStatus = m_pClient->Read(m_sFile, 0, 100, sData, bEof);
                     EXPECT_THAT(sData, testing::AnyOf(kMine, "")) << "that is read outside";
                     return iStatus;
                 }},
                {"SETATTR size", [this] { return Set(std::nullopt, 0); }},
                {"WRITE",
                 [this] {
                     std::uint32_t iCount = 0;
                     return m_pClient->Write(m_sFile, 0, kMine, iCount);
                 }},
                {"SETATTR mode", [this] { return Set(0600, std::nullopt); }},
                {"READDIR",
                 [this] {
                     std::vector<std::string> vsNames;
                     const std::uint32_t iStatus = m_pClient->Readdir(m_sDir, vsNames);
                     EXPECT_THAT(vsNames, testing::Not(testing::Contains("secret")));
                     return iStatus;
                 }},
                {"READDIRPLUS", [this] { return List(); }},
                {"FSSTAT", [this] { return m_pClient->Nfs3(kNfsFsstat, XdrBuilder().Opaque(m_sDir).Bytes()).U32(); }},
                {"FSINFO", [this] { return m_pClient->Nfs3(kNfsFsinfo, XdrBuilder().Opaque(m_sDir).Bytes()).U32(); }}};
    }
    std::vector<Call> MakeCallsOnNames() {
        return {{"LOOKUP", [this] { return Look(m_sDir, "file"); }},
                {"LOOKUP below", [this] { return Look(m_sRoot, "dir/file"); }},
                {"CREATE", [this] { return m_pClient->Create(m_sDir, "new", m_sIgnored); }},
                {"CREATE below", [this] { return m_pClient->Create(m_sRoot, "dir/newer", m_sIgnored); }},
                {"CREATE old", [this] { return m_pClient->Create(m_sDir, "file", m_sIgnored); }},
                {"CREATE cut", [this] { return Cut("victim"); }},
                {"MKDIR", [this] { return m_pClient->Mkdir(m_sDir, "newDir", m_sIgnored); }},
                {"RENAME in", [this] { return Rename(m_sRoot, "own", m_sDir, "victim"); }},
                {"RENAME within", [this] { return Rename(m_sDir, "file", m_sDir, "renamed"); }},
                {"RENAME out", [this] { return Rename(m_sDir, "victim", m_sRoot, "stolen"); }},
                {"RENAME folder", [this] { return Rename(m_sDir, "full", m_sRoot, "full"); }},
                {"REMOVE", [this] { return m_pClient->Remove(m_sDir, "gone"); }},
                {"REMOVE below", [this] { return m_pClient->Remove(m_sRoot, "dir/lost"); }},
                {"RMDIR", [this] { return m_pClient->Rmdir(m_sDir, "empty"); }}};
    }
    std::uint32_t Set(std::optional<std::uint32_t> iMode, std::optional<std::uint64_t> iSize) {
        Sattr3 attributes;
        attributes.iMode = iMode;
        attributes.iSize = iSize;
        return m_pClient->Setattr(m_sFile, attributes);
    }
    /// Also for a name that is nowhere but outside.
    std::uint32_t Look(const std::string& sFolder, const std::string& sName) {
        const std::string sSecret = std::filesystem::path(sName).replace_filename("secret");
        EXPECT_NE(m_pClient->Lookup(sFolder, sSecret, m_sIgnored), 0U) << "there is no such file in the export";
        const XdrBuilder arguments = XdrBuilder().Opaque(sFolder).Opaque(sName);
        XdrReader reader = m_pClient->Nfs3(kNfsLookup, arguments.Bytes());
        const std::uint32_t iStatus = reader.U32();
        if (iStatus == 0) {
            reader.Opaque();
            ExpectMine(ReadPostOpAttr(reader).value_or(Fattr3{}));
        }
        return iStatus;
    }
    /// Of something that the client has seen.
    std::uint32_t Rename(const std::string& sFromFolder, const std::string& sFrom, const std::string& sToFolder,
                         const std::string& sTo) {
        m_pClient->Lookup(sFromFolder, sFrom, m_sIgnored);
        return m_pClient->Rename(sFromFolder, sFrom, sToFolder, sTo);
    }
    /// CREATE that empties what is there.
    std::uint32_t Cut(const char* pcName) {
        XdrBuilder cut;
        cut.Opaque(m_sDir).Opaque(pcName).U32(0).U32(1).U32(0644).U32(0).U32(0).U32(1).U64(0).U32(0).U32(0);
        return m_pClient->Nfs3(kNfsCreate, cut.Bytes()).U32();
    }
    std::uint32_t List() {
        const XdrBuilder arguments = XdrBuilder().Opaque(m_sDir).U64(0).U64(0).U32(4096).U32(32768);
        XdrReader reader = m_pClient->Nfs3(kNfsReaddirplus, arguments.Bytes());
        const std::uint32_t iStatus = reader.U32();
        ReadPostOpAttr(reader);
        if (iStatus != 0) {
            return iStatus;
        }
        reader.U64();
        while (reader.Bool()) {
            reader.U64();
            EXPECT_NE(reader.Opaque(), "secret");
            reader.U64();
            ExpectMine(ReadPostOpAttr(reader).value_or(Fattr3{}));
            ReadPostOpHandle(reader);
        }
        return iStatus;
    }
    /// Makes the export anew and lets go of open files.
    void Restore() {
        for (const char* pcName : {"own", "stolen", "full"}) {
            std::filesystem::remove_all(Folder() / pcName);
        }
        for (const char* pcName : {"new", "newer", "newDir", "renamed"}) {
            std::filesystem::remove_all(std::filesystem::path(Folder() / "dir") / pcName);
        }
        Fill(Folder() / "dir", kMine);
        WriteWholeFile(Folder() / "own", kMine);
        EXPECT_EQ(m_pClient->Lookup(m_sDir, "file", m_sFile), 0U);  // it may have been renamed, and its handle with it
        Utilities().CloseAllCachedFileHandles(&m_Param, &m_Tag);
    }

    LineCounter m_Counter;
    TempFolder m_Outside;
    Watch m_Watch;
    std::set<std::string> m_Before;
    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
    std::string m_sDir;
    std::string m_sFile;
    std::string m_sIgnored;  ///< handles that nobody needs
    std::map<std::string, int> m_Succeeded;
    std::map<std::string, int> m_Failed;
    CSilentParam m_Param;
    LogArgu m_Tag{"Test"};
};

TEST_F(ContainmentRaceTest, NoCallGetsOutWhileAFolderIsSwappedWithALink) {
    const std::vector<Call> vCalls = MakeCalls();
    for (int iRound = 0; iRound < kRounds && !HasFailure(); ++iRound) {
        Restore();
        const Swapper swapper(Folder() / "dir", Folder() / "link");
        for (const Call& call : vCalls) {
            Note(call.pcName, call.make());
        }
    }
    EXPECT_TRUE(std::ranges::any_of(m_Succeeded, [](const auto& call) { return call.second > 0; }));
    EXPECT_TRUE(std::ranges::any_of(m_Failed, [](const auto& call) { return call.second > 0; }));
}

// Calls that come together share what was found out about a path.
TEST_F(ContainmentRaceTest, NoCallOfABatchGetsOutWhileAFolderIsSwappedWithALink) {
    for (int iRound = 0; iRound < kRounds / 5 && !HasFailure(); ++iRound) {
        Restore();
        std::string sCalls;
        std::uint32_t nCalls = 0;
        const auto add = [&](std::uint32_t iProcedure, const XdrBuilder& arguments) {
            RpcCall call;
            call.iXid = ++nCalls;
            call.iProgram = kNfsProgram;
            call.iProcedure = iProcedure;
            call.sArguments = arguments.Bytes();
            sCalls += call.Bytes(Transport::kTcp);
        };
        for (int i = 0; i < 10; ++i) {
            add(kNfsLookup, XdrBuilder().Opaque(m_sDir).Opaque("file"));
            add(kNfsGetattr, XdrBuilder().Opaque(m_sFile));
            add(kNfsRead, XdrBuilder().Opaque(m_sFile).U64(0).U32(100));
            add(kNfsWrite, XdrBuilder().Opaque(m_sFile).U64(0).U32(4).U32(2).Opaque(kMine));
            add(kNfsReaddirplus, XdrBuilder().Opaque(m_sDir).U64(0).U64(0).U32(4096).U32(32768));
            add(kNfsRename, XdrBuilder().Opaque(m_sDir).Opaque("victim").Opaque(m_sRoot).Opaque("stolen"));
            add(kNfsRename, XdrBuilder().Opaque(m_sRoot).Opaque("stolen").Opaque(m_sDir).Opaque("victim"));
            add(kNfsRemove, XdrBuilder().Opaque(m_sRoot).Opaque("dir/lost"));
        }
        const Swapper swapper(Folder() / "dir", Folder() / "link");
        m_pClient->Nfs().Send(sCalls);
        for (std::uint32_t i = 0; i < nCalls; ++i) {
            Note("batch", WordAt(m_pClient->Nfs().ReceiveReply().sBody, 0));
        }
    }
    EXPECT_GT(m_Succeeded["batch"], 0);
    EXPECT_GT(m_Failed["batch"], 0);
}

TEST_F(ContainmentRaceTest, NoCallGetsOutWhenAFolderIsSwappedWithALinkAtAnyOfItsSteps) {
    const std::string sDir = Folder() / "dir";
    const std::string sLink = Folder() / "link";
    for (const int iBits :
         {CRuntimeParam::kLogProcFuncName | CRuntimeParam::kLogProcFuncArgu | CRuntimeParam::kLogFileAccess, 0x3FF}) {
        for (const Call& call : MakeCalls()) {
            Restore();
            EXPECT_EQ(call.make(), 0U) << call.pcName << " fails without a race";
            Server().SetLogControl(iBits);
            int nSteps = 0;
            for (bool bSwapped = true; bSwapped && nSteps < kMostSteps; ++nSteps) {
                Restore();
                m_Counter.Arm(nSteps, [&] { Swap(sDir, sLink); });
                call.make();
                bSwapped = m_Counter.Disarm();
                if (bSwapped) {
                    Swap(sDir, sLink);
                }
                EXPECT_THAT(m_Watch.Take(), testing::IsEmpty()) << call.pcName << " got out at step " << nSteps;
                m_Log.Clear();
            }
            EXPECT_GT(nSteps, 3) << call.pcName << " leaves too few lines";
            Server().SetLogControl(CRuntimeParam::kLogError);
        }
    }
}

// What is looked at needs a descriptor, to stay what it was judged as; there is one for that when all others are taken.
TEST_F(ContainmentRaceTest, NoCallGetsOutWithoutADescriptorToSpareEither) {
    const std::vector<Call> vCalls = MakeCalls();
    for (int iRound = 0; iRound < kRounds / 5 && !HasFailure(); ++iRound) {
        Restore();
        const FullDescriptorTable full;
        const Swapper swapper(Folder() / "dir", Folder() / "link");
        for (const Call& call : vCalls) {
            for (int i = 0; i < 5; ++i) {
                Note(call.pcName, call.make());
            }
        }
    }
    EXPECT_GT(m_Succeeded["GETATTR"], 0);
}

// Another file system would tell of itself.
TEST_F(ContainmentRaceTest, FileSystemIsThatOfTheExportWhileAFolderIsSwappedWithALink) {
    std::filesystem::remove(Folder() / "link");
    ASSERT_EQ(::symlink("/proc", (Folder() / "link").c_str()), 0);
    const auto askFileSystem = [this]() -> std::optional<std::uint64_t> {
        XdrReader reader = m_pClient->Nfs3(kNfsFsstat, XdrBuilder().Opaque(m_sDir).Bytes());
        if (!Note("FSSTAT", reader.U32())) {
            return std::nullopt;
        }
        ReadPostOpAttr(reader);
        return reader.U64();  // its size, which is nothing in /proc
    };
    ASSERT_GT(askFileSystem().value_or(0), 0U);
    const Swapper swapper(Folder() / "dir", Folder() / "link");
    for (int iRound = 0; iRound < 10 * kRounds && !HasFailure(); ++iRound) {
        EXPECT_NE(askFileSystem(), 0U);
    }
    EXPECT_GT(m_Succeeded["FSSTAT"], 1);
}

}  // namespace
