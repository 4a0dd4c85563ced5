// What the library shows to the outside.
#include <gtest/gtest.h>

#include <set>
#include <sstream>
#include <string>

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

TEST(ExportedSymbolsTest, TheExamplesHostClassDeclaresTheSameNativeMethods) {
    const std::string sRoot = SourceTree();
    EXPECT_EQ(NativesOf(sRoot + "/examples/java-host" + kHostClass), NativesOf(sRoot + "/tests/java" + kHostClass));
}

}  // namespace
