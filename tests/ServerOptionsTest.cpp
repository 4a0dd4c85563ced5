// What the environment and a command line ask of a server.
#include "ServerOptions.h"

#include <cstdlib>
#include <set>
#include <string>

#include <gtest/gtest.h>

#include "Limits.h"

namespace {

/// Variables that this process has for the length of a test.
class ServerOptionsTest : public testing::Test {
protected:
    void SetUp() override { Clear(); }
    void TearDown() override { Clear(); }
    static void Clear() {
        for (const ServerOptionName& name : GetServerOptionNames()) {
            ::unsetenv(name.pcVariable);
        }
    }

    char m_vcReason[kReasonBufferSize] = "";
};

TEST_F(ServerOptionsTest, NothingIsAskedForByAnEmptyEnvironment) {
    const ServerOptions options = ServerOptions::FromEnvironment();
    for (const ServerOptionName& name : GetServerOptionNames()) {
        EXPECT_EQ(name.pFlag == nullptr, name.pText != nullptr) << name.pcOption;
        EXPECT_TRUE(name.pFlag != nullptr ? !(options.*name.pFlag) : (options.*name.pText).empty()) << name.pcOption;
    }
}

TEST_F(ServerOptionsTest, FlagsAreSetByOneAlone) {
    for (const ServerOptionName& name : GetServerOptionNames()) {
        if (name.pFlag == nullptr) {
            continue;
        }
        for (const char* pcNo : {"", "0", "2", "11", "1 ", "yes", "true"}) {
            ::setenv(name.pcVariable, pcNo, 1);
            EXPECT_FALSE(ServerOptions::FromEnvironment().*name.pFlag) << name.pcVariable << "=" << pcNo;
        }
        ::setenv(name.pcVariable, "1", 1);
        EXPECT_TRUE(ServerOptions::FromEnvironment().*name.pFlag) << name.pcVariable;
    }
}

TEST_F(ServerOptionsTest, AFlagThatIsNeitherOneNorNoughtIsRefusedByItsName) {
    for (const ServerOptionName& name : GetServerOptionNames()) {
        if (name.pFlag == nullptr) {
            continue;
        }
        for (const char* pcRight : {"", "0", "1"}) {
            ::setenv(name.pcVariable, pcRight, 1);
            EXPECT_TRUE(ServerOptions::FromEnvironment().CheckFlags(m_vcReason)) << name.pcVariable << "=" << pcRight;
        }
        for (const std::string sWrong : {"2", "11", "1 ", " ", "00", "yes", "no", "true"}) {
            ::setenv(name.pcVariable, sWrong.c_str(), 1);
            ServerOptions options = ServerOptions::FromEnvironment();
            EXPECT_FALSE(options.CheckFlags(m_vcReason)) << sWrong;
            EXPECT_EQ(m_vcReason,
                      "Variable " + std::string(name.pcVariable) + " is \"" + sWrong + "\", which is neither 1 nor 0");
            options.SetFlag(name);
            EXPECT_TRUE(options.CheckFlags(m_vcReason)) << "the option goes before the variable";
            EXPECT_TRUE(options.*name.pFlag);
        }
        Clear();
    }
}

TEST_F(ServerOptionsTest, TextsAreTakenAsTheyStand) {
    for (const ServerOptionName& name : GetServerOptionNames()) {
        if (name.pText != nullptr) {
            ::setenv(name.pcVariable, (" value of " + std::string(name.pcVariable)).c_str(), 1);
        }
    }
    const ServerOptions options = ServerOptions::FromEnvironment();
    EXPECT_EQ(options.sBindAddress, " value of NFSLIB_BIND");
    EXPECT_EQ(options.sAccessFile, " value of NFSLIB_ACCESS");
    EXPECT_EQ(options.sStatisticsFile, " value of NFSLIB_STATS");
    EXPECT_EQ(options.sSocketMode, " value of NFSLIB_SOCKET_MODE");
    EXPECT_EQ(options.sSocketGroup, " value of NFSLIB_SOCKET_GROUP");
}

TEST_F(ServerOptionsTest, EachOptionIsFoundByItsWordAndStandsForOneThing) {
    std::set<std::string> words;
    for (const ServerOptionName& name : GetServerOptionNames()) {
        EXPECT_EQ(FindServerOption(name.pcOption), &name) << name.pcOption;
        EXPECT_TRUE(words.insert(name.pcOption).second) << name.pcOption;
        EXPECT_TRUE(words.insert(name.pcVariable).second) << name.pcVariable;
    }
    for (const char* pcOther : {"", "-", "bind", "-bin", "-bind ", "--bind", "NFSLIB_BIND"}) {
        EXPECT_EQ(FindServerOption(pcOther), nullptr) << pcOther;
    }
}

TEST_F(ServerOptionsTest, BindAddressIsOneOfThisMachine) {
    ServerOptions options;
    std::uint32_t iAddress = 1;
    EXPECT_TRUE(options.GetBindAddress(&iAddress, m_vcReason));
    EXPECT_EQ(iAddress, 0U) << "all addresses, unless asked for";
    options.sBindAddress = "127.0.0.2";
    EXPECT_TRUE(options.GetBindAddress(&iAddress, m_vcReason)) << m_vcReason;
    EXPECT_EQ(iAddress, 0x7F000002U);
    options.sBindAddress = "0.0.0.0";
    EXPECT_TRUE(options.GetBindAddress(&iAddress, m_vcReason)) << m_vcReason;
    EXPECT_EQ(iAddress, 0U);
}

TEST_F(ServerOptionsTest, AWrongBindAddressIsRefusedWithAReason) {
    ServerOptions options;
    std::uint32_t iAddress = 1;
    for (const char* pcWrong : {"localhost", "127.0.0", "127.0.0.1.1", "127.0.0.256", "::1", "127.0.0.1:2049", " "}) {
        options.sBindAddress = pcWrong;
        EXPECT_FALSE(options.GetBindAddress(&iAddress, m_vcReason)) << pcWrong;
        EXPECT_EQ(m_vcReason, "Bind address \"" + std::string(pcWrong) + "\" is no IPv4 address");
    }
    options.sBindAddress = "192.0.2.1";  // kept for documentation: nobody's
    EXPECT_FALSE(options.GetBindAddress(&iAddress, m_vcReason));
    EXPECT_STREQ(m_vcReason, "Bind address \"192.0.2.1\" cannot be used. Cannot assign requested address (99)");
}

}  // namespace
