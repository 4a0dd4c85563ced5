// Rows made of kinds of calls.
#include "Row.h"

#include <utility>

namespace {

Row MakeSimple(const char* pcName, CallKind kind) {
    Row row;
    row.sName = pcName;
    row.vKinds.push_back(std::move(kind));
    row.vOperations = {{0}};
    row.vOrder = {0};
    return row;
}

Row MakePair(const Handles& handles, const LoadFolder& folder) {
    Row row;
    row.sName = "CREATE+REMOVE";
    row.vKinds = {MakeCreate(handles, folder), MakeRemove(handles, folder)};
    row.vOperations = {{0, 1}};
    row.vOrder = {0};
    return row;
}

/// A whole listing: other servers put more entries in a reply than ours, and need fewer calls.
Row MakeListing(const Handles& handles) {
    Row row;
    row.sName = "READDIRPLUS";
    row.vOperations.emplace_back();
    for (std::size_t i = 0; i < handles.vListing.size(); ++i) {
        row.vKinds.push_back(MakeReaddirplus(handles, i));
        row.vOperations.front().push_back(i);
    }
    row.vOrder = {0};
    return row;
}

/// Of 20 operations 6 are GETATTR, 4 LOOKUP, 3 ACCESS, 4 READ and 2 WRITE of 4 KiB, and one is CREATE and REMOVE: what
/// a client does that works with many small files.
Row MakeMix(const Handles& handles, const LoadFolder& folder) {
    constexpr std::uint32_t kSmall = 4096;
    Row row;
    row.sName = "MIX";
    row.vKinds = {MakeGetattr(handles),       MakeLookup(handles, folder),
                  MakeAccess(handles),        MakeRead(handles, folder, kSmall, true),
                  MakeWrite(handles, kSmall), MakeCreate(handles, folder),
                  MakeRemove(handles, folder)};
    row.vOperations = {{0}, {1}, {2}, {3}, {4}, {5, 6}};
    row.vOrder = {0, 1, 3, 0, 2, 1, 4, 0, 3, 2, 5, 0, 1, 3, 0, 4, 1, 2, 0, 3};
    return row;
}

}  // namespace

double Row::BytesPerOperation() const {
    double dBytes = 0;
    for (const std::size_t iOperation : vOrder) {
        for (const std::size_t iKind : vOperations[iOperation]) {
            dBytes += vKinds[iKind].nData;
        }
    }
    return dBytes / static_cast<double>(vOrder.size());
}

std::vector<Row> MakeRows(const Handles& handles, const LoadFolder& folder) {
    return {MakeSimple("NULL", MakeNull()),
            MakeSimple("GETATTR", MakeGetattr(handles)),
            MakeSimple("LOOKUP", MakeLookup(handles, folder)),
            MakeSimple("ACCESS", MakeAccess(handles)),
            MakeSimple("READ4K", MakeRead(handles, folder, 4096, true)),
            MakeSimple("READ64K", MakeRead(handles, folder, 65536, false)),
            MakeSimple("WRITE4K", MakeWrite(handles, 4096)),
            MakeSimple("WRITE16K", MakeWrite(handles, 16384)),
            MakePair(handles, folder),
            MakeMix(handles, folder),
            MakeListing(handles)};
}
