// Wherever the stream is cut, replies and effects are those of calls that come whole: through the RPC server's receive,
// where every piece is known to have been worked on before the next one comes.
#include <algorithm>
#include <functional>
#include <random>

#include <gtest/gtest.h>

#include "NfsClient.h"
#include "PiecesCalls.h"
#include "PiecesWorld.h"
#include "RpcServer.h"

namespace {

constexpr std::size_t kSegment = 1460;  // of TCP over Ethernet
constexpr std::uint32_t kXid = 0xABCD1234;

/// How far apart two cuts are. With a sanitizer, which slows each run down, there are fewer of them, at all the places
/// that four bytes can be cut at.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr std::size_t kStep = 7;
#else
constexpr std::size_t kStep = 1;
#endif

using Pieces = std::vector<std::string>;

Pieces CutAt(const std::string& sStream, std::size_t iCut) {
    return {sStream.substr(0, iCut), sStream.substr(iCut)};
}

Pieces CutInto(const std::string& sStream, std::size_t nPiece) {
    Pieces vsPieces;
    for (std::size_t i = 0; i < sStream.size(); i += nPiece) {
        vsPieces.push_back(sStream.substr(i, nPiece));
    }
    return vsPieces;
}

/// Pieces of 1 to nMost bytes, the same for the same seed.
Pieces CutAnyhow(const std::string& sStream, std::size_t nMost, unsigned int iSeed) {
    std::mt19937 random(iSeed);
    Pieces vsPieces;
    for (std::size_t i = 0; i < sStream.size(); i += vsPieces.back().size()) {
        vsPieces.push_back(sStream.substr(i, random() % nMost + 1));
    }
    return vsPieces;
}

}  // namespace

// ---- One call

class PiecesCallTest : public testing::TestWithParam<std::string> {
protected:
    struct Outcome {
        std::string sReply;
        std::string sState;

        bool operator==(const Outcome&) const = default;
    };

    /// Sends one call in pieces to a server that has just started. Before the last piece there is no reply.
    Outcome Send(const Pieces& vsPieces) {
        m_World.Restart();
        const auto pSocket = m_World.Connect(m_Call.iProgram);
        for (std::size_t i = 0; i < vsPieces.size(); ++i) {
            if (i + 1 == vsPieces.size() && !m_bMayAnswerEarly) {
                EXPECT_EQ(pSocket->Sent(), "") << "a reply before the call has come";
            }
            EXPECT_TRUE(pSocket->Receive(m_World.Server(), vsPieces[i]));
        }
        EXPECT_EQ(pSocket->GetInputStream()->GetFilledBufferSize(), 0U);
        Outcome outcome{Normalised(m_Call.iProgram, m_Call.iProcedure, pSocket->Sent()), ""};
        if (m_Call.bModifying) {
            m_World.Touch();
            outcome.sState = m_World.State();
        }
        return outcome;
    }
    /// From one cut to the next. In the middle of a long machine name or export name one byte is like another.
    static std::size_t Step(const std::string& sCall, const RpcCall& credential, std::size_t iCut) {
        constexpr std::size_t kHead = 44;
        const bool bInName = iCut > kHead + 30 && iCut + 200 < kHead + credential.sCred.size();
        const bool bInArguments = iCut > 600 && iCut + 200 < sCall.size();
        return bInName ? 13 : bInArguments ? 61 : kStep;
    }
    /// What a whole call leads to.
    Outcome SendWhole(const std::string& sCall) {
        Outcome outcome = Send({sCall});
        const RpcReply reply = RpcReply::Parse(Transport::kTcp, outcome.sReply);
        EXPECT_EQ(reply.iXid, kXid);
        EXPECT_EQ(reply.iRecordMark, 0x80000000U + outcome.sReply.size() - 4);
        EXPECT_EQ(reply.iAcceptStatus, m_Call.iAcceptStatus);
        if (m_Call.iStatus) {
            EXPECT_EQ(WordAt(reply.sBody, 0), *m_Call.iStatus);
        }
        return outcome;
    }

    const PiecesCall& m_Call = CallNamed(GetParam());
    /// A refusal does not wait for the arguments, which nobody reads.
    const bool m_bMayAnswerEarly =
        m_Call.iAcceptStatus != kAcceptSuccess || m_Call.sName.find("NameTooLong") != std::string::npos;
    PiecesWorld m_World;
};

namespace {

std::vector<std::string> AllNames() {
    std::vector<std::string> vsNames;
    for (const PiecesCall& call : AllCalls()) {
        vsNames.push_back(call.sName);
    }
    return vsNames;
}

}  // namespace

INSTANTIATE_TEST_SUITE_P(Procedures, PiecesCallTest, testing::ValuesIn(AllNames()),
                         [](const testing::TestParamInfo<std::string>& name) { return name.param; });

TEST_P(PiecesCallTest, IsAnsweredAlikeCutAtEveryByte) {
    for (const RpcCall& credential : FewCredentials()) {
        const std::string sCall = m_Call.Record(credential, kXid);
        const Outcome whole = SendWhole(sCall);
        for (std::size_t iCut = 1; iCut < sCall.size(); iCut += Step(sCall, credential, iCut)) {
            const Outcome cut = Send(CutAt(sCall, iCut));
            ASSERT_EQ(Hex(cut.sReply), Hex(whole.sReply)) << "cut at " << iCut << " of " << sCall.size();
            ASSERT_EQ(cut.sState, whole.sState) << "cut at " << iCut << " of " << sCall.size();
        }
    }
}

TEST_P(PiecesCallTest, IsAnsweredAlikeByteByByteWithAnyCredential) {
    for (const RpcCall& credential : AllCredentials()) {
        const std::string sCall = m_Call.Record(credential, kXid);
        const Outcome whole = SendWhole(sCall);
        const Outcome bytes = Send(CutInto(sCall, 1));
        ASSERT_EQ(Hex(bytes.sReply), Hex(whole.sReply));
        ASSERT_EQ(bytes.sState, whole.sState);
    }
}

// ---- Many calls

class PiecesStreamTest : public testing::Test {
protected:
    struct Sent {
        std::string sRecord;
        const PiecesCall* pCall;
    };

    /// All calls of a program with credentials in turn, so many that each call has met each credential. Calls that are
    /// refused only before NFS version 3 was spoken come first.
    static std::vector<Sent> MakeCalls(std::uint32_t iProgram) {
        const std::vector<RpcCall> vCredentials = AllCredentials();
        std::vector<Sent> vCalls;
        std::uint32_t iXid = 1;
        for (std::size_t iRound = 0; iRound < vCredentials.size(); ++iRound) {
            for (const PiecesCall& call : AllCalls()) {
                const bool bRefused = call.iProgram == kNfsProgram && call.iAcceptStatus != kAcceptSuccess;
                if (call.iProgram != iProgram || bRefused) {
                    continue;
                }
                const RpcCall& credential = vCredentials[(iRound + iXid) % vCredentials.size()];
                vCalls.push_back({call.Record(credential, iXid), &call});
                ++iXid;
            }
        }
        if (iProgram == kNfsProgram) {
            for (const char* pcName : {"NfsProcedure22", "NfsVersion4", "NfsVersion2"}) {
                const PiecesCall& call = CallNamed(pcName);
                vCalls.insert(vCalls.begin(), {call.Record(vCredentials[5], iXid), &call});
                ++iXid;
            }
        }
        return vCalls;
    }

    /// Sends a stream in pieces; the replies and the state at the end.
    std::pair<std::vector<std::string>, std::string> Send(const std::vector<Sent>& vCalls, const Pieces& vsPieces) {
        m_World.Touch();
        m_World.Restart();
        const auto pSocket = m_World.Connect(vCalls.front().pCall->iProgram);
        for (const std::string& sPiece : vsPieces) {
            EXPECT_TRUE(pSocket->Receive(m_World.Server(), sPiece));
        }
        std::vector<std::string> vsReplies = SplitRecords(pSocket->Sent());
        EXPECT_EQ(vsReplies.size(), vCalls.size());
        for (std::size_t i = 0; i < std::min(vsReplies.size(), vCalls.size()); ++i) {
            vsReplies[i] = Normalised(vCalls[i].pCall->iProgram, vCalls[i].pCall->iProcedure, vsReplies[i]);
        }
        return {vsReplies, m_World.State()};
    }

    void ExpectAlikeInAnyPieces(std::uint32_t iProgram) {
        const std::vector<Sent> vCalls = MakeCalls(iProgram);
        Pieces vsCalls;
        std::string sStream;
        for (const Sent& sent : vCalls) {
            vsCalls.push_back(sent.sRecord);
            sStream += sent.sRecord;
        }
        const auto oneByOne = Send(vCalls, vsCalls);
        EXPECT_EQ(Send(vCalls, {sStream}), oneByOne) << "all at once";
        EXPECT_EQ(Send(vCalls, CutInto(sStream, 1)), oneByOne) << "byte by byte";
        EXPECT_EQ(Send(vCalls, CutInto(sStream, kSegment)), oneByOne) << "in segments";
        EXPECT_EQ(Send(vCalls, CutInto(sStream, 64 * kSegment)), oneByOne) << "in 64 segments at a time";
        for (unsigned int iSeed = 1; iSeed <= 10; ++iSeed) {
            EXPECT_EQ(Send(vCalls, CutAnyhow(sStream, iSeed * iSeed * 20, iSeed)), oneByOne) << "seed " << iSeed;
        }
    }

    PiecesWorld m_World;
};

TEST_F(PiecesStreamTest, PortmapperCallsAreAnsweredAlikeInAnyPieces) {
    ExpectAlikeInAnyPieces(kPortmapProgram);
}

TEST_F(PiecesStreamTest, MountCallsAreAnsweredAlikeInAnyPieces) {
    ExpectAlikeInAnyPieces(kMountProgram);
}

TEST_F(PiecesStreamTest, NfsCallsAreAnsweredAlikeInAnyPieces) {
    ExpectAlikeInAnyPieces(kNfsProgram);
}

// ---- Calls in the data of a WRITE

class PiecesDataTest : public testing::Test {
protected:
    static std::string Call(std::uint32_t iProcedure, const XdrBuilder& arguments, Transport transport,
                            std::uint32_t iXid = 666) {
        RpcCall call;
        call.iXid = iXid;
        call.iProgram = kNfsProgram;
        call.iProcedure = iProcedure;
        call.sArguments = arguments.Bytes();
        return call.Bytes(transport);
    }
    static XdrBuilder Handle(unsigned int iID) { return XdrBuilder().Raw(HandleArgument(iID)); }
    static XdrBuilder WriteArguments(unsigned int iID, std::uint32_t nCount, const std::string& sData) {
        return Handle(iID).U64(0).U32(nCount).U32(2).Opaque(sData);
    }
    static std::string Write(unsigned int iID, const std::string& sData, std::uint32_t iXid = kXid) {
        return Call(kNfsWrite, WriteArguments(iID, static_cast<std::uint32_t>(sData.size()), sData), Transport::kTcp,
                    iXid);
    }
    /// Calls that would remove, overwrite and ask, with and without their marks, at odd places too.
    static std::string Harm() {
        std::string sHarm;
        for (const Transport transport : {Transport::kTcp, Transport::kUdp}) {
            for (const char* pcGap : {"", "x", "xyz"}) {
                sHarm += pcGap + Call(kNfsRemove, Handle(PiecesWorld::kDir).Opaque("entry"), transport);
                sHarm += pcGap + Call(kNfsGetattr, Handle(PiecesWorld::kEntry), transport);
                sHarm += pcGap + Call(kNfsWrite, WriteArguments(PiecesWorld::kEntry, 5, "wrong"), transport);
                sHarm += pcGap + Call(kNfsNull, XdrBuilder(), transport);
            }
        }
        return sHarm;
    }

    /// Sends a WRITE of the data to "file" and a NULL in pieces: both are answered, the data is stored, and nothing
    /// else has happened.
    void ExpectStored(const std::string& sData, const std::function<Pieces(const std::string&)>& cut) {
        m_World.Touch();
        m_World.Restart();
        const auto pSocket = m_World.Connect(kNfsProgram);
        const std::string sStream = Write(PiecesWorld::kFile, sData) + Call(kNfsNull, XdrBuilder(), Transport::kTcp, 2);
        for (const std::string& sPiece : cut(sStream)) {
            ASSERT_TRUE(pSocket->Receive(m_World.Server(), sPiece));
        }
        const std::vector<std::string> vsReplies = SplitRecords(pSocket->Sent());
        ASSERT_EQ(vsReplies.size(), 2U) << Hex(pSocket->Sent());
        const RpcReply reply = RpcReply::Parse(Transport::kTcp, vsReplies[0]);
        ASSERT_EQ(reply.iXid, kXid);
        ASSERT_EQ(WordAt(reply.sBody, 0), 0U);
        ASSERT_EQ(WordAt(reply.sBody, 12), sData.size());
        ASSERT_EQ(WordAt(vsReplies[1], 4), 2U);
        ASSERT_TRUE(ReadWholeFile(m_World.Path("file")) == sData);
        ASSERT_EQ(ReadWholeFile(m_World.Path("dir/entry")), "entry");
    }
    static std::size_t StreamSize(const std::string& sData) { return Write(PiecesWorld::kFile, sData).size() + 44; }

    PiecesWorld m_World;
};

TEST_F(PiecesDataTest, IsStoredCutAtEveryByte) {
    // Longer than what stood in the file before.
    const std::string sData = Harm();
    for (std::size_t iCut = 1; iCut <= StreamSize(sData); iCut += kStep) {
        ExpectStored(sData, [&](const std::string& sStream) { return CutAt(sStream, iCut); });
        ASSERT_FALSE(HasFatalFailure()) << "cut at " << iCut;
    }
}

TEST_F(PiecesDataTest, IsStoredInPiecesOfAnySize) {
    std::string sData = Harm();
    while (sData.size() < 16384) {
        sData += sData;
    }
    sData.resize(16384);
    for (const std::size_t nPiece : {std::size_t{1}, std::size_t{44}, kSegment, 3 * kSegment, std::size_t{16000}}) {
        ExpectStored(sData, [&](const std::string& sStream) { return CutInto(sStream, nPiece); });
        ASSERT_FALSE(HasFatalFailure()) << "in pieces of " << nPiece;
    }
    for (unsigned int iSeed = 1; iSeed <= 50; ++iSeed) {
        ExpectStored(sData, [&](const std::string& sStream) { return CutAnyhow(sStream, iSeed * 100, iSeed); });
        ASSERT_FALSE(HasFatalFailure()) << "seed " << iSeed;
    }
}

// What a network monitor writes to a file: whole connections, packet heads and all.
TEST_F(PiecesDataTest, ACapturedStreamIsStoredAsWhatItIs) {
    std::string sCapture;
    for (std::uint32_t i = 0; i < 40; ++i) {
        sCapture += std::string(54, static_cast<char>(i));
        sCapture += Write(PiecesWorld::kEntry, std::string(std::size_t{i} * 5, 'w'), 100 + i);
        sCapture += Call(kNfsRename, Handle(PiecesWorld::kDir).Opaque("entry").Raw(HandleArgument(0)).Opaque("gone"),
                         Transport::kTcp);
    }
    sCapture.resize(std::min<std::size_t>(sCapture.size(), 16384));
    for (std::size_t iCut = 1; iCut <= StreamSize(sCapture); iCut += 7 * kStep) {
        ExpectStored(sCapture, [&](const std::string& sStream) { return CutAt(sStream, iCut); });
        ASSERT_FALSE(HasFatalFailure()) << "cut at " << iCut;
    }
    ExpectStored(sCapture, [&](const std::string& sStream) { return CutInto(sStream, kSegment); });
}

// A record in several fragments is not put together, and nothing of it is stored or executed.
TEST_F(PiecesDataTest, OfARecordInSeveralFragmentsIsNeverStored) {
    const std::string sBody =
        Call(kNfsWrite, WriteArguments(PiecesWorld::kFile, 2000, Harm().substr(0, 2000)), Transport::kUdp);
    for (const std::size_t nFragment : {std::size_t{44}, std::size_t{500}, std::size_t{2000}}) {
        std::string sStream;
        for (std::size_t i = 0; i < sBody.size(); i += nFragment) {
            const std::string sPart = sBody.substr(i, nFragment);
            const std::uint32_t iLast = i + nFragment < sBody.size() ? 0 : 0x80000000U;
            sStream += XdrBuilder().U32(iLast | static_cast<std::uint32_t>(sPart.size())).Raw(sPart).Bytes();
        }
        m_World.Touch();
        m_World.Restart();
        const std::string sBefore = m_World.State();
        for (std::size_t iCut = 1; iCut <= sStream.size(); iCut += kStep) {
            const auto pSocket = m_World.Connect(kNfsProgram);
            for (const std::string& sPiece : CutAt(sStream, iCut)) {
                pSocket->Receive(m_World.Server(), sPiece);
            }
            ASSERT_TRUE(pSocket->IsStopping()) << nFragment << ", cut at " << iCut;
            ASSERT_EQ(pSocket->Sent(), "") << nFragment << ", cut at " << iCut;
        }
        EXPECT_EQ(m_World.State(), sBefore) << nFragment;
    }
}

// The count goes beyond the data: what is stored is the rest of the record, in whatever pieces that comes, then zeros.
TEST_F(PiecesDataTest, BeyondItsOpaqueIsTheRestOfTheRecordWheneverThatComes) {
    RpcCall call;
    call.iXid = kXid;
    call.iProgram = kNfsProgram;
    call.iProcedure = kNfsWrite;
    call.sArguments = WriteArguments(PiecesWorld::kFile, 60, "data").Bytes() + "behind the data";
    const std::string sStream = call.Bytes(Transport::kTcp);
    for (std::size_t iCut = 1; iCut <= sStream.size(); ++iCut) {
        m_World.Touch();
        m_World.Restart();
        const auto pSocket = m_World.Connect(kNfsProgram);
        for (const std::string& sPiece : CutAt(sStream, iCut)) {
            pSocket->Receive(m_World.Server(), sPiece);
        }
        ASSERT_EQ(SplitRecords(pSocket->Sent()).size(), 1U) << "cut at " << iCut;
        ASSERT_EQ(ReadWholeFile(m_World.Path("file")), "databehind the data" + std::string(41, '\0')) << iCut;
    }
}

// A count within what is here waits for nothing: the mark does not decide what a whole call is.
TEST_F(PiecesDataTest, OfACountThatIsHereIsStoredThoughTheMarkPromisesMore) {
    std::string sCall = Write(PiecesWorld::kFile, "data");
    sCall.replace(0, 4, XdrBuilder().U32(0x80000000U + 1000).Bytes());
    const auto pSocket = m_World.Connect(kNfsProgram);
    m_World.Touch();
    pSocket->Receive(m_World.Server(), sCall);
    EXPECT_EQ(SplitRecords(pSocket->Sent()).size(), 1U);
    EXPECT_EQ(ReadWholeFile(m_World.Path("file")).substr(0, 5), "data4");
}
