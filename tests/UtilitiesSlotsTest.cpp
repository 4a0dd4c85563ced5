// The order of CUtilities' virtual operations, whichever of its layers they come from.
#include "Utilities.h"

#include <cstddef>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "SlotOf.h"

namespace {

TEST(UtilitiesSlotsTest, LogAndNotificationsStandInTheirOrderBehindTheDestructor) {
    static_assert(std::has_virtual_destructor_v<CUtilities>);
    using All = CUtilities;
    using Line = void (CLog::*)(CRuntimeParam*, const char*);
    using Update =
        int (CLog::*)(CRuntimeParam*, const char*, bool, unsigned long long, bool, unsigned long, bool, unsigned long);
    using Remove = int (CLog::*)(CRuntimeParam*, const char*);
    using Rename = int (CLog::*)(CRuntimeParam*, const char*, const char*);
    using Write = int (CLog::*)(CRuntimeParam*, const char*, unsigned long long, int, unsigned int);
    const std::vector<std::pair<const char*, std::ptrdiff_t>> vSlots = {
        {"LogInfo", SlotOf<Line>(&All::LogInfo)},
        {"LogError", SlotOf<Line>(&All::LogError)},
        {"LogRaw", SlotOf<Line>(&All::LogRaw)},
        {"LogUpdateRedirectedFileAttributes", SlotOf<Update>(&All::LogUpdateRedirectedFileAttributes)},
        {"LogRemoveRedirectedFile", SlotOf<Remove>(&All::LogRemoveRedirectedFile)},
        {"LogRenameRedirectedFile", SlotOf<Rename>(&All::LogRenameRedirectedFile)},
        {"LogWriteRedirectedFile", SlotOf<Write>(&All::LogWriteRedirectedFile)},
        {"CanTellOf", SlotOf(&All::CanTellOf)},
    };
    std::ptrdiff_t iExpected = 2;  // behind the two forms of the destructor
    for (const auto& [pcName, iSlot] : vSlots) {
        EXPECT_EQ(iSlot, iExpected) << pcName;
        ++iExpected;
    }
}

}  // namespace
