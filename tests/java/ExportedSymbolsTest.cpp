// What the library shows to the outside.
#include <set>
#include <sstream>
#include <string>
#include <string_view>

#include <gtest/gtest.h>

#include "ChildProcess.h"
#include "TempFolder.h"
#include "Trees.h"

namespace {

constexpr const char* kPrefix = "Java_com_norvo_kbt_quickspin_nfs_NfsLibNative_";
constexpr const char* kHostClass = "/com/norvo/kbt/quickspin/nfs/NfsLibNative.java";

/// The exported names of the native methods that a Java source declares.
std::set<std::string> NativesOf(const std::string& sSourcePath) {
    std::set<std::string> sNames;
    std::istringstream source(ReadWholeFile(sSourcePath));
    for (std::string sLine; std::getline(source, sLine);) {
        const std::size_t iOpen = sLine.find('(');
        if (sLine.find("public native ") != std::string::npos && iOpen != std::string::npos) {
            const std::size_t iName = sLine.rfind(' ', iOpen) + 1;
            sNames.insert(kPrefix + sLine.substr(iName, iOpen - iName));
        }
    }
    return sNames;
}

/// The public methods of a Java source, each from its result to its parameters or exceptions, on one line.
std::set<std::string> DeclarationsOf(const std::string& sSourcePath) {
    const std::string sSource = ReadWholeFile(sSourcePath);
    std::set<std::string> sDeclarations;
    constexpr std::string_view kPublic = "public ";
    for (std::size_t iStart = sSource.find(kPublic); iStart != std::string::npos;
         iStart = sSource.find(kPublic, iStart + 1)) {
        const std::size_t iBegin = iStart + kPublic.size();
        std::istringstream words(sSource.substr(iBegin, sSource.find_first_of(";{", iBegin) - iBegin));
        std::string sDeclaration;
        for (std::string sWord; words >> sWord;) {
            sDeclaration += (sDeclaration.empty() ? "" : " ") + sWord;
        }
        if (sDeclaration.find('(') != std::string::npos) {
            sDeclarations.insert(sDeclaration);
        }
    }
    return sDeclarations;
}

TEST(ExportedSymbolsTest, MainAndTheNativeMethodsAreExportedAndNothingElse) {
    const RunResult nm = RunProgram({"nm", "-D", "--defined-only", "--format=just-symbols", NFSLIB_LIBRARY});
    ASSERT_EQ(nm.iStatus, 0) << nm.sOutput;
    std::set<std::string> sExported;
    std::istringstream lines(nm.sOutput);
    for (std::string sLine; std::getline(lines, sLine);) {
        sExported.insert(sLine);
    }
    std::set<std::string> sExpected = NativesOf(SourceTree() + "/tests/java" + kHostClass);
    EXPECT_EQ(sExpected.size(), 35U);
    sExpected.insert("main");
    EXPECT_EQ(sExported, sExpected);
}

/// A method that the machine finds by its name alone would be called with whatever parameters the example declares.
TEST(ExportedSymbolsTest, TheExamplesHostClassDeclaresTheMethodsWithTheSameParameters) {
    const std::string sRoot = SourceTree();
    EXPECT_EQ(NativesOf(sRoot + "/examples/java-host" + kHostClass), NativesOf(sRoot + "/tests/java" + kHostClass));
    const std::set<std::string> sExample = DeclarationsOf(sRoot + "/examples/java-host" + kHostClass);
    const std::set<std::string> sTested = DeclarationsOf(sRoot + "/tests/java" + kHostClass);
    EXPECT_EQ(sExample.size(), 35U + 8U) << "native methods and host methods";
    for (const std::string& sDeclaration : sExample) {
        EXPECT_TRUE(sTested.contains(sDeclaration)) << sDeclaration;
    }
}

}  // namespace
