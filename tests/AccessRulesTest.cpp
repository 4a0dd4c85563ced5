// The grammar of access files, and which of their rules decides.
#include "AccessRules.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace {

constexpr AccessGrant kNothing{AccessRight::kNone, false};
constexpr AccessGrant kRo{AccessRight::kReadOnly, false};
constexpr AccessGrant kRw{AccessRight::kReadWrite, false};
constexpr AccessGrant kRoShared{AccessRight::kReadOnly, true};
constexpr AccessGrant kRwShared{AccessRight::kReadWrite, true};

/// The rules of a text; fails the test where it is wrong.
CAccessRules Rules(std::string_view sText) {
    std::string sReason;
    auto rules = CAccessRules::Parse(sText, &sReason);
    EXPECT_TRUE(rules.has_value()) << sReason;
    return rules.value_or(CAccessRules());
}

/// Why a text is refused; empty for one that is not.
std::string ReasonOf(std::string_view sText) {
    std::string sReason;
    const bool bTaken = CAccessRules::Parse(sText, &sReason).has_value();
    EXPECT_EQ(bTaken, sReason.empty()) << sReason;
    return sReason;
}

// ---- What decides

TEST(AccessRulesTest, WithoutRulesNobodyIsAdmitted) {
    EXPECT_EQ(CAccessRules().Find("data", "127.0.0.1"), kNothing);
    EXPECT_EQ(Rules("").Find("data", "127.0.0.1"), kNothing);
    EXPECT_EQ(Rules("# nothing yet\n\n").GetCount(), 0U);
}

TEST(AccessRulesTest, ARuleAdmitsItsAddressToItsExportAlone) {
    const CAccessRules rules = Rules("data 192.0.2.7 rw\n");
    EXPECT_EQ(rules.GetCount(), 1U);
    EXPECT_EQ(rules.Find("data", "192.0.2.7"), kRw);
    for (const char* pcOther : {"192.0.2.6", "192.0.2.8", "192.0.3.7", "0.0.0.0", "255.255.255.255"}) {
        EXPECT_EQ(rules.Find("data", pcOther), kNothing) << pcOther;
    }
    for (const char* pcOther : {"", "Data", "dat", "data2", "*"}) {
        EXPECT_EQ(rules.Find(pcOther, "192.0.2.7"), kNothing) << pcOther;
    }
}

TEST(AccessRulesTest, RightsAreReadAsTheyStand) {
    const std::pair<const char*, AccessGrant> vRights[] = {
        {"rw", kRw}, {"ro", kRo}, {"none", kNothing}, {"rw,shared", kRwShared}, {"ro,shared", kRoShared}};
    for (const auto& [pcRights, grant] : vRights) {
        EXPECT_EQ(Rules(std::string("data 10.0.0.1 ") + pcRights).Find("data", "10.0.0.1"), grant) << pcRights;
    }
}

TEST(AccessRulesTest, NetworksHoldTheAddressesOfTheirPrefix) {
    const struct {
        const char* pcNetwork;
        std::vector<const char*> vpcIn, vpcOut;
    } vCases[] = {
        {"0.0.0.0/0", {"0.0.0.0", "127.0.0.1", "255.255.255.255"}, {}},
        {"128.0.0.0/1", {"128.0.0.0", "255.255.255.255"}, {"127.255.255.255", "0.0.0.0"}},
        {"10.0.0.0/8", {"10.0.0.0", "10.255.255.255"}, {"9.255.255.255", "11.0.0.0"}},
        {"192.0.2.64/26", {"192.0.2.64", "192.0.2.127"}, {"192.0.2.63", "192.0.2.128"}},
        {"192.0.2.6/31", {"192.0.2.6", "192.0.2.7"}, {"192.0.2.5", "192.0.2.8"}},
        {"192.0.2.6/32", {"192.0.2.6"}, {"192.0.2.5", "192.0.2.7"}},
    };
    for (const auto& tried : vCases) {
        const CAccessRules rules = Rules(std::string("data ") + tried.pcNetwork + " ro\n");
        for (const char* pcIn : tried.vpcIn) {
            EXPECT_EQ(rules.Find("data", pcIn), kRo) << pcIn << " in " << tried.pcNetwork;
        }
        for (const char* pcOut : tried.vpcOut) {
            EXPECT_EQ(rules.Find("data", pcOut), kNothing) << pcOut << " in " << tried.pcNetwork;
        }
    }
}

TEST(AccessRulesTest, AddressesAsNumbersAreThoseOfTheTexts) {
    const CAccessRules rules = Rules("data 1.2.3.4 rw\n");
    EXPECT_EQ(rules.Find("data", 0x01020304U), kRw);
    EXPECT_EQ(rules.Find("data", 0x04030201U), kNothing);
}

TEST(AccessRulesTest, WhatIsNoAddressIsNotAdmitted) {
    const CAccessRules rules = Rules("* 0.0.0.0/0 rw\n");
    for (const char* pcText : {"", "localhost", "1.2.3", "1.2.3.4.5", "::1", "1.2.3.4 ", "01.2.3.4"}) {
        EXPECT_EQ(rules.Find("data", pcText), kNothing) << pcText;
    }
    EXPECT_EQ(rules.Find("data", static_cast<const char*>(nullptr)), kNothing);
}

TEST(AccessRulesTest, SeveralClientsOfARuleAreAllAdmitted) {
    const CAccessRules rules = Rules("data 10.0.0.1,10.0.0.3,10.1.0.0/16 rw\n");
    EXPECT_EQ(rules.GetCount(), 1U);
    for (const char* pcIn : {"10.0.0.1", "10.0.0.3", "10.1.0.0", "10.1.255.255"}) {
        EXPECT_EQ(rules.Find("data", pcIn), kRw) << pcIn;
    }
    EXPECT_EQ(rules.Find("data", "10.0.0.2"), kNothing);
}

TEST(AccessRulesTest, TheFirstRuleThatFitsDecides) {
    const CAccessRules rules = Rules(
        "data 10.0.0.5 none\n"
        "data 10.0.0.0/24 ro\n"
        "data 10.0.0.7 rw\n"
        "data 10.0.0.0/8 rw\n");
    EXPECT_EQ(rules.Find("data", "10.0.0.5"), kNothing);
    EXPECT_EQ(rules.Find("data", "10.0.0.7"), kRo) << "the rule for it alone comes too late";
    EXPECT_EQ(rules.Find("data", "10.9.0.7"), kRw);
}

TEST(AccessRulesTest, RulesForAllExportsStandInTheOrderOfTheFileToo) {
    const CAccessRules rules = Rules(
        "* 10.0.0.1 ro\n"
        "data 10.0.0.0/24 rw\n"
        "* 10.0.0.2 none\n"
        "* 10.0.0.3,10.0.1.0/24 rw,shared\n");
    EXPECT_EQ(rules.Find("data", "10.0.0.1"), kRo);
    EXPECT_EQ(rules.Find("data", "10.0.0.2"), kRw);
    EXPECT_EQ(rules.Find("data", "10.0.0.3"), kRw);
    EXPECT_EQ(rules.Find("data", "10.0.1.3"), kRwShared);
    EXPECT_EQ(rules.Find("other", "10.0.0.1"), kRo);
    EXPECT_EQ(rules.Find("other", "10.0.0.2"), kNothing);
    EXPECT_EQ(rules.Find("other", "10.0.0.3"), kRwShared);
    EXPECT_EQ(rules.Find("other", "10.0.0.4"), kNothing);
}

// ---- The form

TEST(AccessRulesTest, BlanksCommentsAndMissingLineEndsDoNotMatter) {
    const CAccessRules rules = Rules(
        "# the backup host\n"
        "\n"
        " \t \n"
        "   # indented\n"
        "\t data \t 10.0.0.1  \trw \t# behind a rule\n"
        "last 10.0.0.3 rw");
    EXPECT_EQ(rules.Find("data", "10.0.0.1"), kRw);
    EXPECT_EQ(rules.Find("last", "10.0.0.3"), kRw);
}

TEST(AccessRulesTest, AHashInsideAWordIsPartOfIt) {
    EXPECT_EQ(Rules("a#b 10.0.0.2 ro #\n").Find("a#b", "10.0.0.2"), kRo);
    EXPECT_EQ(ReasonOf("a 10.0.0.2 ro#c\n"),
              "line 1: \"ro#c\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\"");
}

TEST(AccessRulesTest, NamesMayHoldAnyOtherByte) {
    const std::string sName = "sp\xC3\xA4t\x01\xFF,=\"'*";
    EXPECT_EQ(Rules(sName + " 10.0.0.2 rw\n").Find(sName, "10.0.0.2"), kRw);
}

TEST(AccessRulesTest, EveryKindOfWrongLineIsRefusedWithItsReason) {
    const std::string sLong(100, 'x');
    const std::pair<std::string, std::string> vLines[] = {
        {"data", "wants an export, clients and rights, and has the first alone"},
        {"data 10.0.0.1", "wants an export, clients and rights, and has no rights"},
        {"data 10.0.0.1 # rw", "wants an export, clients and rights, and has no rights"},
        {"data 10.0.0.1 rw 10.0.0.2", "has \"10.0.0.2\" behind the rights"},
        {"data 10.0.0.1, 10.0.0.2 rw", "has \"rw\" behind the rights"},
        {"data 10.0.0.1 rw , shared", "has \",\" behind the rights"},
        {"/srv/data 10.0.0.1 rw", "\"/srv/data\" is no export's name: it holds a slash"},
        {"data 10.0.0.1 wr", "\"wr\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\""},
        {"data 10.0.0.1 RW", "\"RW\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\""},
        {"data 10.0.0.1 none,shared", "\"none,shared\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\""},
        {"data 10.0.0.1 shared", "\"shared\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\""},
        {"data 10.0.0.1 rw\r", "\"rw?\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\""},
        {"data 10.0.0.1 " + sLong,
         "\"" + sLong.substr(0, 64) + "...\" is none of rw, ro, none, \"rw,shared\" and \"ro,shared\""},
        {"data 10.0.0.256 rw", "\"10.0.0.256\" is no IPv4 address"},
        {"data 10.0.0 rw", "\"10.0.0\" is no IPv4 address"},
        {"data 010.0.0.1 rw", "\"010.0.0.1\" is no IPv4 address"},
        {"data backup.example.org rw", "\"backup.example.org\" is no IPv4 address"},
        {"data * rw", "\"*\" is no IPv4 address"},
        {"data ::1 rw", "\"::1\" is no IPv4 address"},
        {"data 10.0.0.1,, rw", "\"\" is no IPv4 address"},
        {"data 10.0.0.1, rw", "\"\" is no IPv4 address"},
        {"data ,10.0.0.1 rw", "\"\" is no IPv4 address"},
        {"data 10.0.0.1-10.0.0.5 rw", "\"10.0.0.1-10.0.0.5\" is no IPv4 address"},
        {"data /24 rw", "\"\" is no IPv4 address"},
        {"data 10.0.0.0/33 rw", "\"10.0.0.0/33\" has no number from 0 to 32 behind its slash"},
        {"data 10.0.0.0/ rw", "\"10.0.0.0/\" has no number from 0 to 32 behind its slash"},
        {"data 10.0.0.0/-1 rw", "\"10.0.0.0/-1\" has no number from 0 to 32 behind its slash"},
        {"data 10.0.0.0/08 rw", "\"10.0.0.0/08\" has no number from 0 to 32 behind its slash"},
        {"data 10.0.0.0/024 rw", "\"10.0.0.0/024\" has no number from 0 to 32 behind its slash"},
        {"data 10.0.0.0/99999999999999999999 rw",
         "\"10.0.0.0/99999999999999999999\" has no number from 0 to 32 behind its slash"},
        {"data 10.0.0.0/8/8 rw", "\"10.0.0.0/8/8\" has no number from 0 to 32 behind its slash"},
        {"data 10.0.0.0/255.0.0.0 rw", "\"10.0.0.0/255.0.0.0\" has no number from 0 to 32 behind its slash"},
        {"data 10.0.0.5/24 rw", "\"10.0.0.5/24\" is an address in a network, not a network"},
        {"data 10.0.0.1/0 rw", "\"10.0.0.1/0\" is an address in a network, not a network"},
        {std::string("data 10.0.0.1 rw #\0", 19), "holds a NUL character"},
    };
    for (const auto& [sLine, sReason] : vLines) {
        EXPECT_EQ(ReasonOf(sLine), "line 1: " + sReason) << sLine;
        EXPECT_EQ(ReasonOf("# one\n\n* 10.0.0.0/8 rw\n" + sLine + "\n* 10.0.0.1 ro\n"), "line 4: " + sReason) << sLine;
    }
}

TEST(AccessRulesTest, TheFirstOfSeveralWrongLinesIsNamed) {
    EXPECT_EQ(ReasonOf("a 10.0.0.1 rw\nb 10.0.0.1\nc\n"),
              "line 2: wants an export, clients and rights, and has no rights");
}

}  // namespace
