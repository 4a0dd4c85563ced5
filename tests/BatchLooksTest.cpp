// What the calls of one batch may share of a look at a path, and what they must not.
#include "BatchLooks.h"

#include <gtest/gtest.h>

#include "Nfs3ProgFixture.h"
#include "WaitUntil.h"

namespace {

constexpr const char* kPath = "/export/file";

class BatchLooksTest : public testing::Test {
protected:
    using Effect = CBatchLooks::Effect;

    static void Keep(const char* pcPath = kPath) {
        FoundStatus found;
        found.bKnown = true;
        found.status.st_size = 7;
        CBatchLooks::Keep(pcPath, found);
    }
    static bool IsKept(const char* pcPath = kPath) {
        FoundStatus found;
        const bool bKept = CBatchLooks::Find(pcPath, &found);
        EXPECT_EQ(found.bKnown, bKept);
        EXPECT_EQ(found.status.st_size, bKept ? 7 : 0);
        EXPECT_FALSE(found.name.IsOpen());
        return bKept;
    }
    /// The test may be held up for longer than a look is kept.
    static bool IsEverKept() {
        for (int iTry = 0; iTry < 1000; ++iTry) {
            Keep();
            if (IsKept()) {
                return true;
            }
        }
        return false;
    }
};

TEST_F(BatchLooksTest, LastLookIsKeptUntilTheBatchEnds) {
    {
        const CBatchLooks looks;
        EXPECT_FALSE(IsKept());
        EXPECT_TRUE(IsEverKept());
        EXPECT_FALSE(IsKept("/export/other"));
        Keep("/export/other");
        EXPECT_FALSE(IsKept());
    }
    EXPECT_FALSE(IsKept("/export/other"));
    Keep();
    EXPECT_FALSE(IsKept()) << "there is no batch";
    const CBatchLooks looks;
    EXPECT_FALSE(IsKept()) << "this is another one";
}

TEST_F(BatchLooksTest, ForgottenLookIsNone) {
    const CBatchLooks looks;
    Keep();
    CBatchLooks::Forget();
    EXPECT_FALSE(IsKept());
}

TEST_F(BatchLooksTest, LookIsSoonTooOld) {
    const CBatchLooks looks;
    Keep();
    EXPECT_TRUE(WaitUntil([] { return !IsKept(); }));
}

TEST_F(BatchLooksTest, CallThatChangesThingsSharesNothing) {
    const CBatchLooks looks;
    Keep();
    {
        const CBatchLooks::CCall call(Effect::kChanges);
        EXPECT_FALSE(IsKept());
        Keep();
        EXPECT_FALSE(IsKept()) << "it may be changed yet";
    }
    EXPECT_FALSE(IsKept());
    EXPECT_TRUE(IsEverKept()) << "the next call looks again";
}

TEST_F(BatchLooksTest, WritesShareALookWithOneAnotherAlone) {
    const CBatchLooks looks;
    bool bShared = false;
    for (int iTry = 0; iTry < 1000 && !bShared; ++iTry) {
        {
            const CBatchLooks::CCall call(Effect::kWrites);
            Keep();
        }
        const CBatchLooks::CCall call(Effect::kWrites);
        bShared = IsKept();
    }
    EXPECT_TRUE(bShared);
    const CBatchLooks::CCall call(Effect::kNone);
    EXPECT_FALSE(IsKept()) << "the size is not known any more";
}

/// Calls of one batch, and what the host does meanwhile.
class BatchLooksCallsTest : public Nfs3ProgFixture {
protected:
    BatchLooksCallsTest() { WriteWholeFile(Path("file"), "four"); }
    std::uint64_t GetSize() {
        XdrReader reader(Call(kNfsGetattr, XdrBuilder().Opaque(m_sFile)));
        EXPECT_EQ(reader.U32(), 0U);
        return Fattr3::Read(reader).iSize;
    }

    std::string m_sFile = Handle("file");
};

TEST_F(BatchLooksCallsTest, CallsOfOneBatchShareALook) {
    bool bShared = false;
    for (int iTry = 0; iTry < 1000 && !bShared; ++iTry) {
        WriteWholeFile(Path("file"), "four");
        const CBatchLooks looks;
        EXPECT_EQ(GetSize(), 4U);
        WriteWholeFile(Path("file"), "longer");
        bShared = GetSize() == 4U;
    }
    EXPECT_TRUE(bShared);
    EXPECT_EQ(GetSize(), 6U) << "nothing is shared beyond the batch";
}

TEST_F(BatchLooksCallsTest, ChangeIsSeenByTheNextCallOfTheBatch) {
    const CBatchLooks looks;
    EXPECT_EQ(GetSize(), 4U);
    XdrBuilder write;
    write.Opaque(m_sFile).U64(4).U32(4).U32(0).Opaque("more");
    EXPECT_EQ(WordAt(Call(kNfsWrite, write), 0), 0U);
    EXPECT_EQ(GetSize(), 8U);
    XdrBuilder cut;
    cut.Opaque(m_sFile).U32(0).U32(0).U32(0).U32(1).U64(1).U32(0).U32(0).U32(0);
    EXPECT_EQ(WordAt(Call(kNfsSetattr, cut), 0), 0U);
    EXPECT_EQ(GetSize(), 1U);
    EXPECT_EQ(WordAt(Call(kNfsRemove, DirOp("file")), 0), 0U);
    EXPECT_EQ(WordAt(Call(kNfsGetattr, XdrBuilder().Opaque(m_sFile)), 0), 5U);
    EXPECT_EQ(WordAt(Call(kNfsWrite, write), 0), 5U);
}

}  // namespace
