// Replies that are right, and what the load program says when a part of them is not.
#include "CallKind.h"

#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>

#include "NfsMessages.h"
#include "TempFolder.h"

namespace {

constexpr std::uint32_t kXid = 77;

/// A reply under construction; its record mark is set in the end.
class ReplyBuilder {
public:
    ReplyBuilder() { Word(0).Word(kXid).Word(1).Word(0).Word(0).Word(0).Word(0); }

    ReplyBuilder& Word(std::uint32_t iValue) {
        char cBytes[sizeof(iValue)];
        PutWord(cBytes, iValue);
        m_sBytes.append(cBytes, sizeof(cBytes));
        return *this;
    }
    ReplyBuilder& Text(std::string_view sText) {
        Word(static_cast<std::uint32_t>(sText.size()));
        m_sBytes.append(sText).append((4 - sText.size() % 4) % 4, '\0');
        return *this;
    }
    /// Attributes of a regular file of this size (fattr3).
    ReplyBuilder& Attributes(std::uint64_t iSize) {
        Word(1).Word(0644).Word(1).Word(0).Word(0);
        Word(static_cast<std::uint32_t>(iSize >> 32U)).Word(static_cast<std::uint32_t>(iSize));
        m_sBytes.append(kAttributesSize - 28, '\0');
        return *this;
    }
    std::string Finish() {
        PutWord(m_sBytes.data(), kLastFragment | static_cast<std::uint32_t>(m_sBytes.size() - 4));
        return m_sBytes;
    }

private:
    std::string m_sBytes;
};

/// What the check of a reply complains of, or nothing.
std::string ComplaintOf(const CallKind& kind, const std::string& sReply, std::uint64_t iOffset = 0) {
    try {
        kind.Check(sReply, kXid, iOffset);
        return "";
    } catch (const WrongReply& error) {
        return error.what();
    }
}

/// The reply with one word replaced. The words of the head, by place: 0 mark, 1 transaction ID, 6 accept status; the
/// status of the procedure is word 7.
std::string WithWord(std::string sReply, std::size_t iWord, std::uint32_t iValue) {
    PutWord(sReply.data() + 4 * iWord, iValue);
    return sReply;
}

class CallKindTest : public testing::Test {
protected:
    TempFolder m_Scratch;
    LoadFolder m_Folder{m_Scratch.Path()};
    Handles m_Handles{"root", "read", "write", "list", {{0, 0}}};
};

/// What holds for every kind: a refusal, another call's reply, and bytes too few or too many are noticed.
void ExpectHeadIsJudged(const CallKind& kind, const std::string& sReply, bool bHasStatus) {
    EXPECT_EQ(ComplaintOf(kind, sReply), "");
    EXPECT_NE(ComplaintOf(kind, WithWord(sReply, 1, kXid + 1)), "");
    EXPECT_NE(ComplaintOf(kind, WithWord(sReply, 6, 3)), "");
    EXPECT_NE(ComplaintOf(kind, sReply.substr(0, sReply.size() - 4)), "");
    EXPECT_NE(ComplaintOf(kind, sReply + std::string(4, '\0')), "");
    if (bHasStatus) {
        EXPECT_NE(ComplaintOf(kind, WithWord(sReply, 7, 5)), "");
    }
}

}  // namespace

TEST_F(CallKindTest, NullIsAnEmptyReply) {
    ExpectHeadIsJudged(MakeNull(), ReplyBuilder().Finish(), false);
}

TEST_F(CallKindTest, GetattrTellsTheSizeOfTheFile) {
    const CallKind kind = MakeGetattr(m_Handles);
    ExpectHeadIsJudged(kind, ReplyBuilder().Word(0).Attributes(kFileSize).Finish(), true);
    EXPECT_EQ(ComplaintOf(kind, ReplyBuilder().Word(0).Attributes(kFileSize - 1).Finish()), "wrong file size");
}

TEST_F(CallKindTest, LookupGivesTheHandleThatTheFileHas) {
    const CallKind kind = MakeLookup(m_Handles, m_Folder);
    ExpectHeadIsJudged(kind, ReplyBuilder().Word(0).Text("read").Word(0).Word(0).Finish(), true);
    EXPECT_EQ(ComplaintOf(kind, ReplyBuilder().Word(0).Text("rea").Word(0).Word(0).Finish()), "wrong handle");
}

TEST_F(CallKindTest, AccessGrantsReadingAndWriting) {
    const CallKind kind = MakeAccess(m_Handles);
    ExpectHeadIsJudged(kind, ReplyBuilder().Word(0).Word(0).Word(0x0D).Finish(), true);
    EXPECT_NE(ComplaintOf(kind, ReplyBuilder().Word(0).Word(0).Word(0x09).Finish()), "");
}

TEST_F(CallKindTest, ReadBringsTheBytesOfItsOffset) {
    constexpr std::uint32_t kBytes = 8192;
    constexpr std::uint64_t kOffset = 40960;
    const CallKind kind = MakeRead(m_Handles, m_Folder, kBytes, true);
    const auto reply = [this](std::uint64_t iOffset, std::uint32_t nCount) {
        std::string sData(m_Folder.GetContent().BlockAt(iOffset, 0), Content::kBlock);
        sData.append(m_Folder.GetContent().BlockAt(iOffset + Content::kBlock, 0), Content::kBlock);
        return ReplyBuilder().Word(0).Word(0).Word(nCount).Word(0).Text(sData).Finish();
    };
    EXPECT_EQ(ComplaintOf(kind, reply(kOffset, kBytes), kOffset), "");
    EXPECT_EQ(ComplaintOf(kind, reply(kOffset + Content::kBlock, kBytes), kOffset), "wrong data at offset 40960");
    EXPECT_NE(ComplaintOf(kind, reply(kOffset, kBytes - 1), kOffset), "");
    std::string sLastByteWrong = reply(kOffset, kBytes);
    sLastByteWrong.back() = static_cast<char>(sLastByteWrong.back() ^ 1);
    EXPECT_EQ(ComplaintOf(kind, sLastByteWrong, kOffset), "wrong data at offset 40960");
}

TEST_F(CallKindTest, WriteIsDoneInFullUnderOneVerifier) {
    constexpr std::uint32_t kBytes = 4096;
    const CallKind kind = MakeWrite(m_Handles, kBytes);
    const auto reply = [](std::uint32_t nCount, std::uint32_t iVerifier) {
        return ReplyBuilder().Word(0).Word(0).Word(0).Word(nCount).Word(2).Word(0).Word(iVerifier).Finish();
    };
    ExpectHeadIsJudged(kind, reply(kBytes, 9), true);
    EXPECT_NE(ComplaintOf(kind, reply(kBytes - 1, 9)), "");
    EXPECT_EQ(ComplaintOf(kind, reply(kBytes, 10)), "the write verifier changed");
}

TEST_F(CallKindTest, CreateGivesAHandleAndRemoveSaysDone) {
    const std::string sCreated = ReplyBuilder().Word(0).Word(1).Text("made").Word(0).Word(0).Word(0).Finish();
    ExpectHeadIsJudged(MakeCreate(m_Handles, m_Folder), sCreated, true);
    EXPECT_NE(ComplaintOf(MakeCreate(m_Handles, m_Folder), WithWord(sCreated, 8, 0)), "");
    ExpectHeadIsJudged(MakeRemove(m_Handles, m_Folder), ReplyBuilder().Word(0).Word(0).Word(0).Finish(), true);
}

TEST_F(CallKindTest, ListingHasItsOwnNamesAndEndsWhereItShould) {
    const CallKind kind = MakeReaddirplus(m_Handles, 0);
    const auto reply = [](const char* pcName, bool bHandle, std::uint32_t iEof) {
        ReplyBuilder builder;
        builder.Word(0).Word(0).Word(0).Word(0).Word(1).Word(0).Word(5).Text(pcName).Word(0).Word(1);
        builder.Word(1).Attributes(1).Word(bHandle ? 1 : 0);
        if (bHandle) {
            builder.Text("file");
        }
        return builder.Word(0).Word(iEof).Finish();
    };
    ExpectHeadIsJudged(kind, reply("entry-0", true, 1), true);
    EXPECT_EQ(ComplaintOf(kind, reply("stranger", true, 1)), "wrong name in a listing");
    EXPECT_EQ(ComplaintOf(kind, reply("entry-0", false, 1)), "an entry without name, attributes or handle");
    EXPECT_EQ(ComplaintOf(kind, reply("entry-0", true, 0)), "a listing that went on otherwise before");
}

TEST_F(CallKindTest, AWriteThatNeverReachedTheFileIsFound) {
    std::vector<bool> vbWritten(kLoadSize / Content::kBlock);
    EXPECT_NO_THROW(m_Folder.CheckWritten(vbWritten, 1));
    vbWritten[3] = true;
    EXPECT_NO_THROW(m_Folder.CheckWritten(vbWritten, 0));
    EXPECT_THROW(m_Folder.CheckWritten(vbWritten, 1), WrongReply);
}
