// A file of figures: written whole, anew, and never through a link; its thread, and its failures.
#include "StatisticsFile.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "Descriptor.h"
#include "SoftLimit.h"
#include "UtilitiesFixture.h"
#include "WaitUntil.h"

namespace {

using std::chrono::milliseconds;

constexpr milliseconds kOften{5};
constexpr milliseconds kNever = std::chrono::hours(1);

class StatisticsFileTest : public UtilitiesFixture {
protected:
    /// A file whose text is the number of its writing, many times, so that a torn one is seen.
    std::unique_ptr<CStatisticsFile> Make(const std::string& sPath, milliseconds interval = kNever) {
        return std::make_unique<CStatisticsFile>(
            sPath,
            [this](StatisticsForm form) {
                m_Form = form;
                return MakeText(++m_nShown);
            },
            &m_Utilities, &m_Param, interval);
    }
    static std::string MakeText(int n) {
        std::string sText;
        for (int i = 0; i < 1000; ++i) {
            sText += std::to_string(n) + "\n";
        }
        return sText;
    }
    static bool IsThere(const std::string& sPath) {
        struct stat status {};
        return ::lstat(sPath.c_str(), &status) == 0;
    }

    std::atomic<int> m_nShown{0};
    std::atomic<StatisticsForm> m_Form{StatisticsForm::kTable};
};

TEST_F(StatisticsFileTest, IsWrittenInTheFormOfItsNameForEverybodyToRead) {
    const mode_t iMask = ::umask(077);
    for (const auto& [pcName, form] :
         {std::pair{"x.json", StatisticsForm::kJson}, std::pair{"x.prom", StatisticsForm::kPrometheus},
          std::pair{"x", StatisticsForm::kTable}}) {
        const auto pFile = Make(m_Folder / pcName);
        ASSERT_TRUE(pFile->Write(m_vcReason)) << m_vcReason;
        EXPECT_EQ(m_Form, form) << pcName;
        EXPECT_EQ(ReadWholeFile(m_Folder / pcName), MakeText(m_nShown));
        struct stat status {};
        ASSERT_EQ(::stat((m_Folder / pcName).c_str(), &status), 0);
        EXPECT_EQ(status.st_mode, S_IFREG | 0644U);
        EXPECT_FALSE(IsThere(m_Folder / pcName + ".tmp"));
    }
    ::umask(iMask);
}

TEST_F(StatisticsFileTest, AReaderSeesWholeTextsOnly) {
    const std::string sPath = m_Folder / "figures";
    const auto pFile = Make(sPath, milliseconds(0));
    ASSERT_TRUE(pFile->Write(m_vcReason)) << m_vcReason;
    ASSERT_TRUE(pFile->Start(m_vcReason)) << m_vcReason;
    int nTorn = 0;
    int nSeen = 0;
    EXPECT_TRUE(WaitUntil([&] {
        const std::string sText = ReadWholeFile(sPath);  // throws if it is missing for a moment
        const int n = std::stoi(sText);
        nTorn += sText == MakeText(n) ? 0 : 1;
        nSeen = std::max(nSeen, n);
        return nSeen > 200;
    }));
    EXPECT_EQ(nTorn, 0);
    pFile->Stop();
    EXPECT_EQ(ReadWholeFile(sPath), MakeText(m_nShown)) << "the last figures, after the thread's end";
}

TEST_F(StatisticsFileTest, TheThreadWritesAtOnceAndItsEndDoesNotWaitForTheInterval) {
    const auto pFile = Make(m_Folder / "figures");
    ASSERT_TRUE(pFile->Start(m_vcReason)) << m_vcReason;
    EXPECT_TRUE(WaitUntil([&] { return IsThere(m_Folder / "figures"); }));
    pFile->Stop();
    EXPECT_EQ(m_nShown, 2) << "at the start and at the end";
    pFile->Stop();
    EXPECT_EQ(m_nShown, 2) << "once stopped";
}

TEST_F(StatisticsFileTest, WhatCannotBeWrittenIsToldWithItsReason) {
    const auto reasonFor = [this](const std::string& sPath) {
        m_vcReason[0] = '\0';
        EXPECT_FALSE(Make(sPath)->Write(m_vcReason)) << sPath;
        return std::string(m_vcReason);
    };
    const std::string sMissing = m_Folder / "missing/x.json";
    EXPECT_EQ(reasonFor(sMissing), "Statistics file \"" + sMissing + "\": Folder \"" + (m_Folder / "missing/") +
                                       "\": No such file or directory (2)");
    EXPECT_EQ(reasonFor(m_Folder.Path()), "Statistics file \"" + m_Folder.Path() + "\": Is a directory (21)");
    EXPECT_EQ(reasonFor(m_Folder / ""), "Statistics file \"" + m_Folder.Path() + "/\": names no file");
    const std::string sFile = MakeFile("file", "");
    EXPECT_EQ(reasonFor(sFile + "/x"),
              "Statistics file \"" + sFile + "/x\": Folder \"" + sFile + "/\": Not a directory (20)");
    const std::string sLong = m_Folder / std::string(255, 'x');
    EXPECT_EQ(reasonFor(sLong), "Statistics file \"" + sLong + "\": File name too long (36)");
    EXPECT_FALSE(IsThere(m_Folder.Path() + ".tmp")) << "nothing is left beside it";
}

TEST_F(StatisticsFileTest, ALinkInThePlaceOfTheTemporaryFileIsNeverFollowed) {
    const std::string sVictim = MakeFile("victim", "precious");
    const std::string sPath = m_Folder / "figures";
    const std::string sBeside = sPath + ".tmp";
    ASSERT_EQ(::symlink(sVictim.c_str(), sBeside.c_str()), 0);
    const auto pFile = Make(sPath, milliseconds(0));
    ASSERT_TRUE(pFile->Write(m_vcReason)) << m_vcReason;
    EXPECT_EQ(ReadWholeFile(sVictim), "precious");
    EXPECT_EQ(ReadWholeFile(sPath), MakeText(1));
    // And put there again and again while the file is being written.
    ASSERT_TRUE(pFile->Start(m_vcReason)) << m_vcReason;
    int nLinked = 0;
    EXPECT_TRUE(WaitUntil([&] {
        nLinked += ::symlink(sVictim.c_str(), sBeside.c_str()) == 0 ? 1 : 0;
        return nLinked > 20 && m_nShown > 100;
    }));
    pFile->Stop();
    EXPECT_EQ(ReadWholeFile(sVictim), "precious");
    ::unlink(sBeside.c_str());
}

TEST_F(StatisticsFileTest, AFolderInThePlaceOfTheTemporaryFileStandsInTheWay) {
    const std::string sPath = m_Folder / "figures";
    ASSERT_EQ(::mkdir((sPath + ".tmp").c_str(), 0755), 0);
    EXPECT_FALSE(Make(sPath)->Write(m_vcReason));
    EXPECT_STREQ(m_vcReason, ("Statistics file \"" + sPath + "\": File exists (17)").c_str());
    EXPECT_FALSE(IsThere(sPath));
}

TEST_F(StatisticsFileTest, ALinkUnderTheFilesOwnNameIsReplacedAndNotWrittenThrough) {
    const std::string sVictim = MakeFile("victim", "precious");
    ASSERT_EQ(::symlink(sVictim.c_str(), (m_Folder / "figures").c_str()), 0);
    ASSERT_TRUE(Make(m_Folder / "figures")->Write(m_vcReason)) << m_vcReason;
    EXPECT_EQ(ReadWholeFile(sVictim), "precious");
    EXPECT_EQ(ReadWholeFile(m_Folder / "figures"), MakeText(1));
}

TEST_F(StatisticsFileTest, AFailureIsToldOnceForEachStateAndEndsByItself) {
    const std::string sFolder = m_Folder / "folder";
    ASSERT_EQ(::mkdir(sFolder.c_str(), 0755), 0);
    const std::string sPath = sFolder + "/figures";
    const auto pFile = Make(sPath, kOften);
    ASSERT_TRUE(pFile->Start(m_vcReason)) << m_vcReason;
    EXPECT_TRUE(WaitUntil([&] { return IsThere(sPath); }));
    const std::string sAside = m_Folder / "aside";
    ASSERT_EQ(::rename(sFolder.c_str(), sAside.c_str()), 0);
    const std::string sHead = "[StatisticsFile.Write] Statistics file \"" + sPath + "\"";
    EXPECT_TRUE(
        m_Log.WaitFor(sHead + ": Folder \"" + sFolder + "/\": No such file or directory (2). It stays as it was"));
    const int nShown = m_nShown;
    EXPECT_TRUE(WaitUntil([&] { return m_nShown > nShown + 10; })) << "it goes on trying";
    MakeFile("folder", "");
    EXPECT_TRUE(m_Log.WaitFor(sHead + ": Folder \"" + sFolder + "/\": Not a directory (20). It stays as it was"));
    ASSERT_EQ(::unlink(sFolder.c_str()), 0);
    ASSERT_EQ(::rename(sAside.c_str(), sFolder.c_str()), 0);
    EXPECT_TRUE(m_Log.WaitFor(sHead + " is written again"));
    pFile->Stop();
    // Between unlink and rename the first state may have been met once more.
    EXPECT_GE(m_Log.Texts('e').size(), 2U);
    EXPECT_LE(m_Log.Texts('e').size(), 3U);
    EXPECT_EQ(m_Log.Texts('i').size(), 1U);
}

TEST_F(StatisticsFileTest, WithoutDescriptorsTheCacheGivesSomeBack) {
    const std::string sPath = m_Folder / "figures";
    const auto pFile = Make(sPath);
    m_Param.SetLogControl(0);
    ExportFolder();
    for (int i = 0; i < 50; ++i) {
        const std::string sName = MakeFile("f" + std::to_string(i), "");
        m_Utilities.GetCachedFileHandle(&m_Param, &m_Tag, sName.c_str(), false);
    }
    ASSERT_EQ(m_Utilities.GetCachedFileCount(), 50U);
    const SoftLimit limit(RLIMIT_NOFILE, 200);
    for (const std::size_t nFree : {0, 1}) {
        std::vector<CDescriptor> vTaken;
        while (vTaken.empty() || vTaken.back().IsOpen()) {
            vTaken.emplace_back(::dup(STDERR_FILENO));
        }
        vTaken.resize(vTaken.size() - nFree - 1);
        EXPECT_TRUE(pFile->Write(m_vcReason)) << m_vcReason << " with " << nFree;
    }
}

}  // namespace
