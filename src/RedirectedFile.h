// Redirected files: virtual files whose bytes are segments of other files.
//
// Building the map and its life are in RedirectedFile.cpp, lookups and reads in RedirectedFileRead.cpp, the copies of
// content and map for the host in RedirectedFileExport.cpp.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "CachedFile.h"
#include "CheckPointList.h"
#include "RuntimeParam.h"
#include "Segment.h"
#include "SegmentList.h"
#include "SourceList.h"
#include "ThreadAnnotations.h"

class CDescriptorCache;
class CInfoFileReader;
class CPositionedFile;
struct LogContext;

/// A virtual file of a given size, described by the host as a list of segments; bytes that no segment covers are
/// zeros. Lookups take the first segment, in the order of adding, that covers the offset.
///
/// The map lives in memory, or in an append-only info file of 32-byte records with a check point in memory at every
/// gigabyte. The info file and the sources are opened through the descriptor cache, by path.
///
/// Open is called once, before the object is shared; all else may be called by any thread at any time. One thread's
/// call never changes what another thread's read returns: map and positions are guarded by locks that are not held
/// while sources are read, descriptors are pinned while in use, and no position of a shared descriptor is relied
/// upon. A call that finds the file closed, or sees it being closed, ends with what it has.
///
/// Locks, in this order: m_hMutexAppend (and under it that of the earlier file under the same path), the info file's
/// position mutex, m_hMutex.
class CRedirectedFile {
public:
    /// The owner, of which only its log and its descriptor cache are used. It outlives the object.
    explicit CRedirectedFile(CDescriptorCache* pUtilities);
    virtual ~CRedirectedFile();
    CRedirectedFile(const CRedirectedFile&) = delete;
    CRedirectedFile& operator=(const CRedirectedFile&) = delete;

    /// Sets size and ID. With an info file path (null for none) the map is kept in that file, which must exist; its
    /// records are cut at multiples of the segment size, its check points lie at multiples of the check-point size.
    /// Sizes in MiB; 0 or less means the default.
    void Open(CRuntimeParam* pRuntimeParam, long long iSize, int iId, const char* pcInfoFile,
              int iInfoFileSegmentSizeMB, int iInfoFileCheckPointSizeMB);
    /// Open in two steps, for a registry that shares the object in between: Prepare is all of Open but its log line,
    /// and takes over the file whose place this one takes (or null). CloseEarlier closes that one, on whichever thread
    /// comes first: no segment is added here before the last one of the earlier file has been written.
    void Prepare(long long iSize, int iId, const char* pcInfoFile, int iInfoFileSegmentSizeMB,
                 int iInfoFileCheckPointSizeMB, std::shared_ptr<CRedirectedFile> pEarlier);
    void CloseEarlier(CRuntimeParam* pRuntimeParam);
    void ReportOpen(CRuntimeParam* pRuntimeParam);

    /// Records that the virtual bytes from iOffset on, iLength of them, are those at iFileOffset of the source (null
    /// or empty for zeros). Clipped at the end of the file. False with a reason if the offset is not below the size
    /// (the source is remembered all the same); false if the file is closed. The source is taken as it is: the registry
    /// has judged it, and refuses one that is redirected itself (CUtilities::AddRedirectedFileSegment).
    bool AddSegment(CRuntimeParam* pRuntimeParam, const char* pcSource, long long iFileOffset, long long iOffset,
                    long long iLength, char* pcStatus);

    /// Finds the first segment that covers the virtual offset; index -1 if there is none.
    void GetSegment(CRuntimeParam* pRuntimeParam, long long iOffset, ProcSegment* pProcSegment);
    /// Moves on to the segment that was added next; index -1 at the end.
    void GetNextSegment(CRuntimeParam* pRuntimeParam, ProcSegment* pProcSegment);

    /// Reads at a virtual offset. The result is the number of bytes delivered, or -1 at or beyond the size while the
    /// end of file was not reached yet. Zeros for a gap at the tail may make it more than iLen: the buffer has room
    /// for GetReadRoom(iLen). Lengths above kMaxReadLength are cut to it.
    int Read(CRuntimeParam* pRuntimeParam, unsigned long long iOffset, void* pvBuffer, unsigned int iLen, bool* pbEof);
    /// The buffer that a read of iLen bytes needs: what was read before a gap at the tail (less than iLen) and zeros
    /// for the gap (up to iLen again).
    static constexpr std::size_t GetReadRoom(unsigned int iLen) { return std::size_t{2} * iLen; }
    /// 1 GiB minus one: twice as much is still an int.
    static constexpr unsigned int kMaxReadLength = 0x3FFFFFFFU;

    long long GetFileSize() const { return m_iSize; }
    int GetId() const { return m_iId; }
    /// The virtual offset just past the last successful Read.
    long long GetPos() const { return m_iPos; }
    /// The number of check points, and of bytes that the map takes in memory.
    std::size_t GetCheckPointCount() const;
    std::size_t GetMapMemory() const;
    /// The number of segments added to the map: in memory, or as records that were written to the info file.
    std::uint64_t GetSegmentCount() const { return m_nSegments.load(); }
    bool IsClosed() const { return m_bClosed; }
    /// Was the path given as a source before, in this spelling?
    bool IsSource(const char* pcPath) const;

    /// Remembers the info file's current place as the record of that segment, if the segment begins at a multiple
    /// (other than 0) of the check-point size.
    void CreateCheckPointSegment(CRuntimeParam* pRuntimeParam, const Segment& segment);

    /// Tells that the redirected file was renamed. From now on its info file is looked for under the new path and
    /// nowhere else: what comes to stand under the old one is not its own.
    void SetRenamedInfoFile(const char* pcPath);

    /// Empties the map and closes the cached descriptors of info file and sources, after an earlier file's that was
    /// taken over. Only the first call acts.
    void Close(CRuntimeParam* pRuntimeParam);

    /// Writes the whole virtual content to an existing file, as reads deliver it.
    void Export(CRuntimeParam* pRuntimeParam, const char* pcExportPath);
    /// Writes the map as text to an existing file; merged: one line for neighbours from the same source.
    void ExportInfo(CRuntimeParam* pRuntimeParam, const char* pcExportPath, bool bMergeRange);

    // The owner's wrappers without the error text. A descriptor of -1 stands for a source that is not there:
    // reading it yields zeros, seeking it the offset asked for, both without a system call.
    int OS_FileRead(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, void* pvBuffer,
                    unsigned int iLen);
    int OS_FileWrite(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, const void* pvBuffer,
                     unsigned int iLen);
    long long OS_FileSeek(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile, long long iOffset,
                          int iWhence);
    long long OS_FileTell(CRuntimeParam* pRuntimeParam, const LogArgu* pLogArgu, int iFile);

private:
    static constexpr std::int64_t kMiB = 1048576;

    // ---- Building the map (RedirectedFile.cpp)
    std::int64_t ReferSource(const LogContext& log, const char* pcSource);
    /// What a descriptor is to be had for.
    enum class FileUse { kSource, kReadMap, kWriteMap };
    /// A descriptor from the cache; none for an empty path, a failed open, or once the file is closed.
    CCachedFile GetFile(const LogContext& log, const std::string& sPath, FileUse use);
    CCachedFile GetInfoFile(const LogContext& log, bool bReadWrite);
    std::shared_ptr<const std::string> GetRenamedInfoFile() const;
    /// Where the info file is now; empty for none.
    std::string GetInfoFilePath() const;
    CCachedFile GetWritableInfoFile(const LogContext& log);
    void CloseInfoFile(const LogContext& log);
    void CloseTakenOver(CRuntimeParam* pRuntimeParam) REQUIRES(m_hMutexAppend);
    void AppendToList(const Segment& segment);
    void AppendToInfoFile(const LogContext& log, const CCachedFile& file, Segment segment) REQUIRES(m_hMutexAppend);
    /// Writes the segment's first iLength bytes as a record and takes them off it. False if it is no use to go on.
    bool WriteRecord(const LogContext& log, CPositionedFile& output, Segment& segment, std::int64_t iLength)
        REQUIRES(m_hMutexAppend);
    void CreateCheckPoint(const LogContext& log, CPositionedFile& output, const Segment& segment);
    /// The path of a source, or null; holds as long as the object.
    const std::string* GetSource(std::int64_t iSource) const;

    // ---- Lookup and reading (RedirectedFileRead.cpp)
    class Reading;
    void FindInList(std::int64_t iOffset, ProcSegment* pProcSegment) const;
    void FindNextInList(ProcSegment* pProcSegment) const;
    void FindInInfoFile(CRuntimeParam* pRuntimeParam, CInfoFileReader& reader, std::int64_t iOffset,
                        ProcSegment* pProcSegment) const;
    void FindNextInInfoFile(CRuntimeParam* pRuntimeParam, CInfoFileReader& reader, ProcSegment* pProcSegment) const;
    std::int64_t EstimateRecord(std::int64_t iOffset) const;
    int ReadFrom(CRuntimeParam* pRuntimeParam, unsigned long long iOffset, void* pvBuffer, unsigned int iLen,
                 bool* pbEof, std::int64_t* piLastPos);
    int ReadInner(const LogContext& log, unsigned long long iOffset, void* pvBuffer, unsigned int iLen,
                  std::int64_t iLastPos);

    // ---- Copies for the host (RedirectedFileExport.cpp)
    bool IsOwnFile(int iFile) const;
    void WriteContent(const LogContext& log, CPositionedFile& output);
    void WriteCheckPoints(const LogContext& log, CPositionedFile& output) const;
    void WriteSegments(const LogContext& log, CPositionedFile& output, bool bMergeRange);
    void WriteSegment(const LogContext& log, CPositionedFile& output, const Segment& segment, bool bMerged) const;

    /// Adding a segment gives up after so many failed record writes in a row: the disk is full, and a segment of
    /// exabytes would fail for days.
    static constexpr int kMaxFailedWrites = 1024;

    CDescriptorCache* m_pUtilities;  ///< the owner

    // Set by Open, before the object is shared.
    std::int64_t m_iSize = 0;
    int m_iId = 0;
    std::string m_sInfoFile;                               ///< as long as not renamed; empty for none
    std::int64_t m_iInfoFileSegmentSize = 32 * kMiB;       ///< records are cut at multiples of this
    std::int64_t m_iInfoFileCheckPointSize = 1024 * kMiB;  ///< distance of check points in virtual bytes

    /// One adding of a segment at a time, so that its records stand together; held while the info file is written. No
    /// RegistryMutex: where file access is logged, the lines about a segment of very many records go out under it.
    Mutex m_hMutexAppend;
    std::int64_t m_iInfoFilePos GUARDED_BY(m_hMutexAppend) = 0;  ///< where the last adding left the info file
    int m_nFailedWrites GUARDED_BY(m_hMutexAppend) = 0;          ///< in a row
    /// The file whose place this one took, until it is closed: it may be writing its last record to the info file.
    std::shared_ptr<CRedirectedFile> m_pEarlier GUARDED_BY(m_hMutexAppend);

    /// Set once, before Close goes through the descriptor cache. Whoever takes a descriptor from there looks at it
    /// again afterwards: by the cache's lock, either Close has seen the entry or the taker sees the flag.
    std::atomic<bool> m_bClosed{false};

    /// Guards the map; held for a lookup, never for I/O.
    mutable RegistryMutex m_hMutex;
    CSourceList m_vSource GUARDED_BY(m_hMutex);
    CSegmentList m_vAllCachedSegment GUARDED_BY(m_hMutex);                        ///< what is not in an info file
    std::shared_ptr<const std::string> m_psRenamedInfoFile GUARDED_BY(m_hMutex);  ///< null: under its own path
    std::atomic<bool> m_bInfoFileRenamed{false};  ///< that one is set; spares most reads the lock
    CCheckPointList m_vInfoFileCheckPoint GUARDED_BY(m_hMutex);

    /// The virtual offset just past the last successful Read; exports have one of their own. Depends on nothing else,
    /// so it needs no lock.
    std::atomic<std::int64_t> m_iPos{0};
    std::atomic<std::uint64_t> m_nSegments{0};
};
