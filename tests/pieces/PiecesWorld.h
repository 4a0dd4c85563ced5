// A server without a network, in a world that every run finds the same.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "LogCapture.h"
#include "SocketDoubles.h"
#include "TempFolder.h"

class CMountProg;
class CNfsProg;
class CPortmapProg;
class CRpcServer;

/// An exported folder, all programs and the RPC server, as they are after a start: file IDs, bindings and the folder's
/// content are the same each time, and every run is a connection of its own.
class PiecesWorld {
public:
    static constexpr const char* kExportName = "data";
    /// IDs of the exported folder and its entries "file" (40 bytes), "dir" and "dir/entry". There is "empty", a folder,
    /// too.
    static constexpr unsigned int kRoot = 0;
    static constexpr unsigned int kFile = 1;
    static constexpr unsigned int kDir = 2;
    static constexpr unsigned int kEntry = 3;

    PiecesWorld();
    ~PiecesWorld();

    /// Starts the server anew, with nothing but the export. The folder's content is made again if it was changed.
    void Restart();
    /// A new connection to a program's port.
    std::unique_ptr<CapturingSocket> Connect(unsigned long lProgram) const;
    CRpcServer* Server() { return m_pServer.get(); }

    /// What is in the export, and who has mounted it.
    std::string State();
    /// Tells that a run may have changed the folder.
    void Touch() { m_bTouched = true; }

    std::string Path(std::string_view sName) const { return m_Folder / sName; }

private:
    TempFolder m_Folder;
    LogCapture m_Log;
    CRuntimeParam m_Param{"pieces", 0};
    bool m_bTouched = true;
    std::unique_ptr<CaptureUtilities> m_pUtilities;
    std::unique_ptr<CPortmapProg> m_pPortmapProg;
    std::unique_ptr<CMountProg> m_pMountProg;
    std::unique_ptr<CNfsProg> m_pNfsProg;
    std::unique_ptr<CRpcServer> m_pServer;
};

/// Empties the folder and makes in it what a PiecesWorld's export holds.
void MakePiecesContent(const std::string& sFolder);
/// Names, kinds, modes and contents of all that is in the folder.
std::string FolderState(const std::string& sFolder);

/// Takes a stream of replies apart. Throws std::runtime_error if it is anything but whole records.
std::vector<std::string> SplitRecords(std::string_view sStream);

/// A reply record without what differs from run to run: times, inode numbers, free space, and the write verifier.
std::string Normalised(std::uint32_t iProgram, std::uint32_t iProcedure, std::string sRecord);
