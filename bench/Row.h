// The rows of the measurement: what is called, and what each reply must say.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <unistd.h>

#include "BareProtocol.h"

/// The exported folder that the load works on.
struct LoadFolder {
    std::string sPath;  ///< on this machine
    // Names that no earlier run used: the server keeps descriptors of files that were removed behind its back.
    std::string sReadName = "nfsload-read-" + std::to_string(::getpid());
    std::string sWriteName = "nfsload-write-" + std::to_string(::getpid());
    std::string sListName = "nfsload-list-" + std::to_string(::getpid());
    std::string sRootHandle;  ///< of the folder, from MOUNT
    std::string sReadHandle;
    std::string sWriteHandle;
    std::string sListHandle;  ///< of the folder that is listed
    std::string sContent;     ///< of the file that is read, and what is written
};

inline constexpr int kListEntries = 25;
/// The part of a file that is read and written: large enough to leave the processor's caches, small enough to stay in
/// the page cache.
inline constexpr std::size_t kLoadSize = 64U << 20U;
/// The file that is read goes on behind it, so that no read meets its end.
inline constexpr std::size_t kFileSize = kLoadSize + 65536;

/// One kind of call. The call bytes are complete but for transaction ID, file offset and written data, which are
/// filled in for each call.
struct Row {
    std::string sName;
    std::string sCall;  ///< for a write: what stands in front of the data, which ends the call
    BareWork work = BareWork::kNothing;
    std::uint32_t iOffsetAt = 0;  ///< of the file offset in the call, where there is one
    std::uint32_t nData = 0;      ///< file bytes moved by each call
    bool bRandom = false;         ///< offsets in random order
    bool bCompared = true;        ///< a row with a target against the bare server
    /// Judges a whole reply; throws WrongReply. Returns where file data stands in it (0: none).
    std::function<std::uint32_t(std::string_view sReply, std::uint32_t iXid, std::uint64_t iOffset)> Check;

    std::uint32_t CallSize() const {
        return static_cast<std::uint32_t>(sCall.size()) + (work == BareWork::kWrite ? nData : 0);
    }
};

/// All rows, in the order of the report. The folder outlives them.
std::vector<Row> MakeRows(const LoadFolder& folder);
