// Redirected files: fed by a host in a real virtual machine, used by an NFS client, decided by the host.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/socket.h>
#include <sys/stat.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "JavaHost.h"
#include "NfsClient.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

constexpr std::uint32_t kNfs3Ok = 0;
constexpr std::uint32_t kNfs3ErrIo = 5;
constexpr std::uint32_t kNfs3ErrInval = 22;
constexpr std::size_t kPiece = 65536;
constexpr std::size_t kDiskSize = 2 * kPiece;

using Lines = std::vector<std::string>;

/// A serving host with a lasting callback. Its export holds "disk": a redirected file whose second half comes before
/// its first in the file of pieces it is made of.
class RedirectedHostTest : public JavaTest {
protected:
    void SetUp() override {
        JavaTest::SetUp();
        if (IsSkipped() || HasFatalFailure()) {
            return;
        }
        std::string sPieces;
        for (std::size_t i = 0; i < kDiskSize; ++i) {
            sPieces += static_cast<char>('a' + i % 23);
        }
        m_sContent = sPieces.substr(kPiece) + sPieces.substr(0, kPiece);
        WriteWholeFile(m_Sources / "pieces", sPieces);
        m_pHost = std::make_unique<JavaHost>();
        m_sHandle = m_pHost->Serve("A", m_Folder.Path());
        OpenRedirected("disk", "disk");
        m_pClient = std::make_unique<NfsClient>();
        m_sRoot = m_pClient->Mnt("data").value_or("");
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, "disk", m_sFile), kNfs3Ok);
    }

    void TearDown() override {
        if (m_pHost != nullptr) {
            m_pHost->StopServing("A", m_sHandle);
        }
    }

    /// A placeholder on disk (clients find files by it) and the redirected file over it, under the host's spelling.
    void OpenRedirected(const std::string& sOnDisk, const std::string& sInHost) {
        WriteWholeFile(m_Folder / sOnDisk, "");
        const std::string sPath = m_Folder.Path() + "/" + sInHost;
        EXPECT_EQ(m_pHost->Call("A", "openRedirectedFile", m_sHandle, sPath, kDiskSize, false, 0, 0), "void");
        const std::string sPieces = m_Sources / "pieces";
        EXPECT_EQ(m_pHost->Call("A", "addRedirectedFileSegment", m_sHandle, sPath, sPieces, kPiece, 0, kPiece), "void");
        EXPECT_EQ(m_pHost->Call("A", "addRedirectedFileSegment", m_sHandle, sPath, sPieces, 0, kPiece, kPiece), "void");
    }

    void Answer(const std::string& sMethod, const std::string& sAnswer) {
        EXPECT_EQ(m_pHost->Do({"answer", "A", sMethod, sAnswer}), "ok");
    }

    Lines Notifications() { return m_pHost->Notifications("A"); }
    /// The path of a file of the export, as the host sees it.
    std::string Path(const std::string& sName) const { return m_Folder.Path() + "/" + sName; }

    TempFolder m_Folder;
    TempFolder m_Sources;
    std::string m_sContent;  ///< of the disk
    std::unique_ptr<JavaHost> m_pHost;
    std::string m_sHandle;
    std::unique_ptr<NfsClient> m_pClient;
    std::string m_sRoot;
    std::string m_sFile;
};

TEST_F(RedirectedHostTest, ReadsAreServedFromThePieces) {
    Fattr3 attributes;
    ASSERT_EQ(m_pClient->Getattr(m_sFile, attributes), kNfs3Ok);
    EXPECT_EQ(attributes.iSize, kDiskSize);
    std::string sRead;
    bool bEof = false;
    while (sRead.size() < kDiskSize) {
        std::string sData;
        ASSERT_EQ(m_pClient->Read(m_sFile, sRead.size(), 50000, sData, bEof), kNfs3Ok);
        ASSERT_FALSE(sData.empty()) << "at " << sRead.size();
        sRead += sData;
    }
    EXPECT_TRUE(sRead == m_sContent) << "the two pieces in the host's order";
    EXPECT_TRUE(bEof);
    EXPECT_EQ(Notifications(), Lines()) << "reads are not the host's business";
}

TEST_F(RedirectedHostTest, ARealClientReadsTheWholeFile) {
    const std::string sCopy = m_Sources / "copy";
    m_pClient->Umnt("data");
    const RunResult result = RunProgram({BuildTree() + "/bin/nfsget", "get", "127.0.0.1:data/disk", sCopy});
    ASSERT_EQ(result.iStatus, 0) << result.sOutput;
    EXPECT_TRUE(ReadWholeFile(sCopy) == m_sContent);
}

TEST_F(RedirectedHostTest, WritesArriveAndTheAnswerIsTheByteCount) {
    Answer("writeRedirectedFile", "length");
    std::uint32_t iCount = 0;
    EXPECT_EQ(m_pClient->Write(m_sFile, 4096, std::string(1000, 'w'), iCount), kNfs3Ok);
    EXPECT_EQ(iCount, 1000U);
    EXPECT_EQ(Notifications(), Lines({"writeRedirectedFile(data, " + Path("disk") + ", 4096, 0, 1000)"}));

    EXPECT_EQ(m_pClient->Write(m_sFile, 0, std::string(20000, 'w'), iCount), kNfs3Ok);
    EXPECT_EQ(iCount, 16384U) << "the write limit per call";
    EXPECT_EQ(Notifications(), Lines({"writeRedirectedFile(data, " + Path("disk") + ", 0, 0, 16384)"}));

    const std::uint64_t iFar = std::uint64_t{1} << 40;
    EXPECT_EQ(m_pClient->Write(m_sFile, iFar, "w", iCount), kNfs3Ok);
    EXPECT_EQ(Notifications(), Lines({"writeRedirectedFile(data, " + Path("disk") + ", 1099511627776, 0, 1)"}));

    Answer("writeRedirectedFile", "7");
    EXPECT_EQ(m_pClient->Write(m_sFile, 0, std::string(1000, 'w'), iCount), kNfs3Ok);
    EXPECT_EQ(iCount, 7U);
    Answer("writeRedirectedFile", "0");
    EXPECT_EQ(m_pClient->Write(m_sFile, 0, std::string(1000, 'w'), iCount), kNfs3Ok);
    EXPECT_EQ(iCount, 0U);
    for (const char* pcAnswer : {"-1", "-2147483648"}) {
        Answer("writeRedirectedFile", pcAnswer);
        EXPECT_EQ(m_pClient->Write(m_sFile, 0, std::string(1000, 'w'), iCount), kNfs3ErrInval) << pcAnswer;
    }

    std::string sData;
    bool bEof = false;
    EXPECT_EQ(m_pClient->Read(m_sFile, 4096, 10, sData, bEof), kNfs3Ok);
    EXPECT_EQ(sData, m_sContent.substr(4096, 10)) << "the data is not kept";
    EXPECT_EQ(ReadWholeFile(Path("disk")), "") << "nothing is written to disk";
}

TEST_F(RedirectedHostTest, AttributeChangesArriveAndTheAnswerDecides) {
    Sattr3 size;
    size.iSize = std::uint64_t{1} << 41;
    EXPECT_EQ(m_pClient->Setattr(m_sFile, size), kNfs3Ok);
    EXPECT_EQ(Notifications(), Lines({"setRedirectedFileAttributes(data, " + Path("disk") +
                                      ", true, 2199023255552, false, 0, false, 0)"}));
    Fattr3 attributes;
    EXPECT_EQ(m_pClient->Getattr(m_sFile, attributes), kNfs3Ok);
    EXPECT_EQ(attributes.iSize, kDiskSize) << "the library changes nothing by itself";
    Sattr3 times;
    times.atime = {1700000000, 999};
    times.mtime = {4294967295, 1};
    EXPECT_EQ(m_pClient->Setattr(m_sFile, times), kNfs3Ok);
    EXPECT_EQ(Notifications(), Lines({"setRedirectedFileAttributes(data, " + Path("disk") +
                                      ", false, 0, true, 1700000000, true, 4294967295)"}));
    for (const char* pcAnswer : {"1", "-1"}) {
        Answer("setRedirectedFileAttributes", pcAnswer);
        EXPECT_EQ(m_pClient->Setattr(m_sFile, size), kNfs3ErrInval) << pcAnswer;
    }
}

TEST_F(RedirectedHostTest, RenamesArriveAndTheAnswerDecides) {
    EXPECT_EQ(m_pClient->Rename(m_sRoot, "disk", m_sRoot, "renamed"), kNfs3Ok);
    EXPECT_EQ(Notifications(), Lines({"renameRedirectedFile(data, " + Path("disk") + ", " + Path("renamed") + ")"}));
    std::string sData;
    bool bEof = false;
    EXPECT_EQ(m_pClient->Read(m_sFile, 0, 10, sData, bEof), kNfs3Ok);
    EXPECT_EQ(sData, m_sContent.substr(0, 10)) << "the handle still names the redirected file";
    Answer("renameRedirectedFile", "1");
    EXPECT_EQ(m_pClient->Rename(m_sRoot, "renamed", m_sRoot, "again"), kNfs3ErrIo);
    Answer("renameRedirectedFile", "-1");
    EXPECT_EQ(m_pClient->Rename(m_sRoot, "renamed", m_sRoot, "again"), kNfs3ErrIo) << "it kept its name";
}

TEST_F(RedirectedHostTest, RemovalsArriveAndTheAnswerDecides) {
    EXPECT_EQ(m_pClient->Remove(m_sRoot, "disk"), kNfs3Ok);
    EXPECT_EQ(Notifications(), Lines({"removeRedirectedFile(data, " + Path("disk") + ")"}));
    OpenRedirected("disk", "disk");
    Answer("removeRedirectedFile", "1");
    EXPECT_EQ(m_pClient->Remove(m_sRoot, "disk"), kNfs3ErrIo);
}

TEST_F(RedirectedHostTest, AHostThatThrowsHasAnsweredMinusOne) {
    for (const char* pcMethod :
         {"writeRedirectedFile", "setRedirectedFileAttributes", "renameRedirectedFile", "removeRedirectedFile"}) {
        m_pHost->Do({"throw", "A", pcMethod, "java.lang.IllegalStateException"});
    }
    std::uint32_t iCount = 0;
    Sattr3 size;
    size.iSize = 1;
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(m_pClient->Write(m_sFile, 0, "w", iCount), kNfs3ErrInval);
        EXPECT_EQ(m_pClient->Setattr(m_sFile, size), kNfs3ErrInval);
    }
    EXPECT_EQ(m_pClient->Rename(m_sRoot, "disk", m_sRoot, "renamed"), kNfs3ErrIo);
    EXPECT_EQ(m_pClient->Remove(m_sRoot, "disk"), kNfs3ErrIo);
    EXPECT_EQ(Notifications().size(), 6U);
    Answer("writeRedirectedFile", "length");
    OpenRedirected("disk", "disk");
    EXPECT_EQ(m_pClient->Write(m_sFile, 0, "w", iCount), kNfs3Ok) << "the next call is not poisoned";
}

TEST_F(RedirectedHostTest, WithoutALastingCallbackNobodyAnswers) {
    Answer("isInterrupted", "true");
    EXPECT_EQ(m_pHost->Join("loop"), "false");
    std::uint32_t iCount = 0;
    EXPECT_EQ(m_pClient->Write(m_sFile, 0, "w", iCount), kNfs3ErrInval);
    EXPECT_EQ(m_pClient->Remove(m_sRoot, "disk"), kNfs3ErrIo);
    EXPECT_EQ(Notifications(), Lines());
}

TEST_F(RedirectedHostTest, SegmentsThatCannotBeAddedThrow) {
    const std::string sPieces = m_Sources / "pieces";
    const std::string sNone = Path("none");
    EXPECT_EQ(m_pHost->Call("A", "addRedirectedFileSegment", m_sHandle, sNone, sPieces, 0, 0, 1),
              "!java.io.IOException: Redirected file \"" + sNone + "\" is not open");
    EXPECT_EQ(m_pHost->Call("A", "addRedirectedFileSegment", m_sHandle, Path("disk"), sPieces, 0, kDiskSize, 1),
              "!java.io.IOException: Offset 131072 is not inside the file (size = 131072)");
    EXPECT_EQ(m_pHost->Call("A", "closeRedirectedFile", m_sHandle, Path("disk")), "void");
    EXPECT_EQ(m_pHost->Call("A", "addRedirectedFileSegment", m_sHandle, Path("disk"), sPieces, 0, 0, 1),
              "!java.io.IOException: Redirected file \"" + Path("disk") + "\" is not open");
}

/// On the thread that adds: nothing that they would wait for is held while its lines come.
TEST_F(RedirectedHostTest, LogMethodsMayCloseAddAndStopWhileAHugeSegmentIsAdded) {
    constexpr std::int64_t kTiB = std::int64_t{1} << 40;
    const std::string sHuge = Path("huge");
    EXPECT_EQ(m_pHost->Call("A", "setLogControl", m_sHandle, 32), "void");
    for (const std::string& sCall :
         {"closeRedirectedFile\t" + m_sHandle + "\t" + sHuge,
          "addRedirectedFileSegment\t" + m_sHandle + "\t" + sHuge + "\t\\null\t0\t0\t1", "stopServer\t" + m_sHandle}) {
        SCOPED_TRACE(sCall);
        EXPECT_EQ(m_pHost->Call("A", "openRedirectedFile", m_sHandle, sHuge, 4 * kTiB, false, 0, 0), "void");
        EXPECT_EQ(m_pHost->Do({"react", "A", "logInfo", "call\tA\t" + sCall}), "ok");
        m_pHost->Start("adder", "A", "addRedirectedFileSegment", m_sHandle, sHuge, kNull, 0, 0, 3 * kTiB);
        ASSERT_EQ(m_pHost->Join("adder"), "void");
        EXPECT_EQ(m_pHost->Join("reaction"), "void");
    }
}

TEST_F(RedirectedHostTest, AFailedStartForgetsWhatWasAddedBeforeIt) {
    m_pHost->Call("A", "stopServer", m_sHandle);
    OpenRedirected("disk", "disk");
    {
        const CDescriptor holder = CDescriptor::OpenSocket(SOCK_DGRAM);
        int iPort = 2049;
        ASSERT_TRUE(holder.BindToPort(&iPort));
        EXPECT_EQ(m_pHost->Call("A", "startServer", m_sHandle, 0, 0, false),
                  "!java.io.IOException: NFS daemon failed to open port 2049");
    }
    EXPECT_EQ(m_pHost->Call("A", "addRedirectedFileSegment", m_sHandle, Path("disk"), m_Sources / "pieces", 0, 0, 1),
              "!java.io.IOException: Redirected file \"" + Path("disk") + "\" is not open");
    EXPECT_EQ(m_pHost->Call("A", "startServer", m_sHandle, 0, 0, false), "true");
    OpenRedirected("disk", "disk");
}

TEST_F(RedirectedHostTest, ContentAndMapAreExported) {
    // An export is written into a file that exists, below an exported directory.
    const std::string sCopy = m_Folder / "copy";
    const std::string sMap = m_Folder / "map";
    WriteWholeFile(sCopy, "");
    WriteWholeFile(sMap, "");
    m_pHost->Call("A", "exportRedirectedFile", m_sHandle, Path("disk"), sCopy);
    m_pHost->Call("A", "exportRedirectedFileInfo", m_sHandle, Path("disk"), sMap, true);
    EXPECT_TRUE(ReadWholeFile(sCopy) == m_sContent);
    EXPECT_EQ(ReadWholeFile(sMap),
              "--> Merged Segment path=" + m_Sources / "pieces" + ", fox=65536, ox=0, len=131072\n");
    m_pHost->Call("A", "closeAllRedirectedFiles", m_sHandle, m_Folder.Path());
    m_pHost->Call("A", "closeAllOpenedFiles", m_sHandle, m_Folder.Path());
    m_pHost->Call("A", "closeOpenedFile", m_sHandle, sCopy);
    Fattr3 attributes;
    EXPECT_EQ(m_pClient->Getattr(m_sFile, attributes), kNfs3Ok);
    EXPECT_EQ(attributes.iSize, 0U) << "the placeholder is left";
}

/// Whatever bytes a client puts into a name, the host gets a text and the machine stays well.
TEST_F(RedirectedHostTest, NamesOfAnyBytesReachTheHost) {
    Answer("writeRedirectedFile", "length");
    const std::pair<const char*, const char*> vNames[] = {
        {"gr\xC3\xBC\xC3\x9F", "gr\\u00FC\\u00DF"},
        {"\xE6\x97\xA5\xE6\x9C\xAC", "\\u65E5\\u672C"},
        {"\xF0\x9F\x98\x80", "\\uD83D\\uDE00"},
    };
    for (const auto& [pcOnDisk, pcInHost] : vNames) {
        OpenRedirected(pcOnDisk, pcInHost);
        std::string sFile;
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, pcOnDisk, sFile), kNfs3Ok) << pcInHost;
        std::string sData;
        bool bEof = false;
        EXPECT_EQ(m_pClient->Read(sFile, 0, 10, sData, bEof), kNfs3Ok);
        EXPECT_EQ(sData, m_sContent.substr(0, 10)) << pcInHost << ": the host's path is the client's";
        std::uint32_t iCount = 0;
        EXPECT_EQ(m_pClient->Write(sFile, 0, "w", iCount), kNfs3Ok);
        EXPECT_EQ(Notifications(), Lines({"writeRedirectedFile(data, " + Path(pcInHost) + ", 0, 0, 1)"}));
    }

    // Malformed: stray bytes, an overlong form, one cut short. And what only the virtual machine's own form of UTF-8
    // has: surrogates, by themselves and in pairs, and a zero.
    std::string sFrom = "disk";
    std::string sFromInHost = "disk";
    const std::pair<const char*, const char*> vMalformed[] = {
        {"\xFF\xFE", "\\uFFFD\\uFFFD"}, {"\xC1\x80", "\\uFFFD\\uFFFD"},
        {"\xED\xA0\x80", "\\uD800"},    {"\xED\xA0\xBD\xED\xB8\x80", "\\uD83D\\uDE00"},
        {"a\xC0\x80z", "a\\u0000z"},    {"x\xF0\x9F\x98", "x\\uFFFD"},
    };
    for (const auto& [pcOnDisk, pcInHost] : vMalformed) {
        ASSERT_EQ(m_pClient->Rename(m_sRoot, sFrom, m_sRoot, pcOnDisk), kNfs3Ok) << pcInHost;
        EXPECT_EQ(Notifications(),
                  Lines({"renameRedirectedFile(data, " + Path(sFromInHost) + ", " + Path(pcInHost) + ")"}));
        sFrom = pcOnDisk;
        sFromInHost = pcInHost;
    }
}

/// A path that the host got is the path of the same file when the host gives it back.
TEST_F(RedirectedHostTest, EveryTextOfTheHostComesBackAsItWent) {
    Answer("writeRedirectedFile", "length");
    const std::pair<const char*, const char*> vNames[] = {
        {"\xF0\x9F\x98\x80.img", "\\uD83D\\uDE00.img"},                  // standard UTF-8
        {"zero\xC0\x80zero", "zero\\u0000zero"},                         // what standard UTF-8 cannot hold ...
        {"high\xED\xA0\xBD", "high\\uD83D"},                             // ... in the modified form
        {"low\xED\xB8\x80\xED\xA0\xBD high", "low\\uDE00\\uD83D high"},  // no pair: the wrong way round
    };
    for (const auto& [pcOnDisk, pcInHost] : vNames) {
        OpenRedirected(pcOnDisk, pcInHost);
        std::string sFile;
        ASSERT_EQ(m_pClient->Lookup(m_sRoot, pcOnDisk, sFile), kNfs3Ok) << pcInHost;
        Fattr3 attributes;
        EXPECT_EQ(m_pClient->Getattr(sFile, attributes), kNfs3Ok);
        EXPECT_EQ(attributes.iSize, kDiskSize) << pcInHost << ": the client's bytes are the host's path";
        std::uint32_t iCount = 0;
        EXPECT_EQ(m_pClient->Write(sFile, 0, "w", iCount), kNfs3Ok);
        EXPECT_EQ(Notifications(), Lines({"writeRedirectedFile(data, " + Path(pcInHost) + ", 0, 0, 1)"}));
    }
    std::vector<std::string> vsNames;
    EXPECT_EQ(m_pClient->Readdir(m_sRoot, vsNames), kNfs3Ok);
    for (const auto& [pcOnDisk, pcInHost] : vNames) {
        EXPECT_EQ(std::count(vsNames.begin(), vsNames.end(), pcOnDisk), 1) << pcInHost << " in the listing";
    }
}

/// From inside a notification the host may use the library; what would wait for the thread it is on happens afterwards.
TEST_F(RedirectedHostTest, TheHostMayCallTheLibraryFromANotification) {
    Answer("writeRedirectedFile", "length");
    std::uint32_t iCount = 0;
    const std::pair<std::string, std::string> vCalls[] = {
        {"getMountInfo\t" + m_sHandle + "\tfalse\ttrue", "1"},
        {"isServerRunning\t" + m_sHandle, "true"},
        {"setLogControl\t" + m_sHandle + "\t1", "void"},
        {"addRedirectedFileSegment\t" + m_sHandle + "\t" + Path("disk") + "\t\\null\t0\t0\t1", "void"},
        {"closeOpenedFile\t" + m_sHandle + "\t" + Path("disk"), "void"},
        {"addMountPoint\t" + m_sHandle + "\t/\tdata", "!java.io.IOException: Export name \"data\" already defined"},
        {"startServer\t" + m_sHandle + "\t0\t0\tfalse", "!java.io.IOException: NFS already running"},
    };
    for (const auto& [sCall, sExpected] : vCalls) {
        m_pHost->Do({"react", "A", "writeRedirectedFile", "call\tA\t" + sCall});
        EXPECT_EQ(m_pClient->Write(m_sFile, 0, "w", iCount), kNfs3Ok) << sCall;
        EXPECT_EQ(m_pHost->Join("reaction"), sExpected) << sCall;
    }
    m_pHost->Do({"react", "A", "writeRedirectedFile", "call\tA\tstopServer\t" + m_sHandle});
    try {
        EXPECT_EQ(m_pClient->Write(m_sFile, 0, "w", iCount), kNfs3Ok);
    } catch (const std::runtime_error&) {
        // The end of the server overtook the reply: the connection is closed, as checked below.
    }
    EXPECT_EQ(m_pHost->Join("reaction"), "void");
    EXPECT_TRUE(m_pClient->Nfs().IsClosedByPeer());
}

TEST_F(RedirectedHostTest, TheHostMayTerminateFromANotification) {
    m_pHost->Do({"react", "A", "writeRedirectedFile", "call\tA\tterminate\t" + m_sHandle});
    std::uint32_t iCount = 0;
    try {
        EXPECT_EQ(m_pClient->Write(m_sFile, 0, "w", iCount), kNfs3Ok);
    } catch (const std::runtime_error&) {
        // The end of the server overtook the reply: the connection is closed, as checked below.
    }
    EXPECT_EQ(m_pHost->Join("reaction"), "void");
    EXPECT_TRUE(m_pClient->Nfs().IsClosedByPeer());
    EXPECT_EQ(m_pHost->Join("loop"), "false");
    EXPECT_EQ(m_pHost->Call("A", "getVersion", m_sHandle), "Not Defined");
}

}  // namespace
