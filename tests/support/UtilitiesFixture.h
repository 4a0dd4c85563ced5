// The fixture of the tests of CUtilities: an instance whose log is kept, and a scratch folder.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "LeakGuard.h"
#include "LogCapture.h"
#include "TempFolder.h"
#include "Utilities.h"

/// Everything is logged under the tag "Test" for the ID "10.0.0.5" unless the test changes m_Param.
class UtilitiesFixture : public testing::Test {
protected:
    static constexpr int kLogEverything = 1023;

    /// The lines since the last call, of one kind or ('\0') of all.
    std::vector<std::string> TakeLog(char cKind = '\0') {
        std::vector<std::string> vTexts = m_Log.Texts(cKind);
        m_Log.Clear();
        return vTexts;
    }

    /// A file in the scratch folder; its path.
    std::string MakeFile(const std::string& sName, const std::string& sContent) {
        WriteWholeFile(m_Folder / sName, sContent);
        return m_Folder / sName;
    }

    /// Exports the scratch folder.
    void ExportFolder() {
        ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, m_Folder.Path().c_str(), "data", "", nullptr));
    }

    LeakGuard m_Guard;
    TempFolder m_Folder;
    LogCapture m_Log;
    CRuntimeParam m_Param{"10.0.0.5", kLogEverything};
    LogArgu m_Tag{"Test"};
    CaptureUtilities m_Utilities{&m_Log};
    char m_vcReason[kReasonBufferSize] = "";
};
