// A disk image, stored in pieces all over three files, read back whole by another program's client.
#include <algorithm>
#include <array>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>
#include <nfsc/libnfs.h>

#include "ChildProcess.h"
#include "RedirectedFile.h"
#include "ServerFixture.h"

namespace {

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
constexpr std::int64_t kImageSize = std::int64_t{64} << 20;
constexpr int kFiles = 8;
#else
constexpr std::int64_t kImageSize = std::int64_t{1} << 30;
constexpr int kFiles = 40;
#endif
constexpr std::size_t kBlock = 65536;

/// A descriptor that is closed at the end of the scope.
class File {
public:
    File(const std::string& sPath, int iFlags) : m_iFile(::open(sPath.c_str(), iFlags | O_CLOEXEC, 0644)) {}
    ~File() { ::close(m_iFile); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    operator int() const { return m_iFile; }  // NOLINT: reads like the descriptor it stands for

private:
    int m_iFile;
};

/// FNV-1a over 64-bit words.
class Checksum {
public:
    void Add(const char* pcData, std::size_t n) {
        for (std::size_t i = 0; i < n; i += sizeof(std::uint64_t)) {
            std::uint64_t iWord = 0;
            std::memcpy(&iWord, pcData + i, std::min(sizeof(iWord), n - i));
            m_iSum = (m_iSum ^ iWord) * 0x100000001b3ULL;
        }
    }
    std::uint64_t Get() const { return m_iSum; }

private:
    std::uint64_t m_iSum = 0xcbf29ce484222325ULL;
};

/// Writes what is not zeros; the rest stays a hole.
void WriteSparsely(int iFile, const char* pcData, std::size_t n, std::int64_t iOffset) {
    static constexpr std::array<char, 4096> vcZeros{};
    for (std::size_t i = 0; i < n; i += 4096) {
        const std::size_t iPart = std::min<std::size_t>(4096, n - i);
        if (std::memcmp(pcData + i, vcZeros.data(), iPart) != 0) {
            ASSERT_EQ(::pwrite(iFile, pcData + i, iPart, iOffset + static_cast<std::int64_t>(i)),
                      static_cast<ssize_t>(iPart));
        }
    }
}

struct LibnfsDeleter {
    void operator()(nfs_context* pContext) const { nfs_destroy_context(pContext); }
};

class RedirectedImageTest : public ServerFixture {
protected:
    struct Piece {
        std::int64_t iOffset, iLength;
        std::size_t iSource;
        std::int64_t iFileOffset;
    };

    std::string Image() const { return m_Work / "image"; }
    std::string Copy() const { return m_Work / "copy"; }
    std::string Source(std::size_t i) const { return m_Work / ("source" + std::to_string(i)); }

    static std::string FindTool(const std::string& sName) {
        for (const char* pcFolder : {"/usr/sbin/", "/sbin/", "/usr/bin/"}) {
            if (::access((pcFolder + sName).c_str(), X_OK) == 0) {
                return pcFolder + sName;
            }
        }
        return "";
    }

    void Run(const std::vector<std::string>& vsArguments) {
        ChildProcess child(vsArguments);
        const auto iStatus = child.Wait(std::chrono::seconds(120));
        ASSERT_TRUE(iStatus.has_value()) << vsArguments[0] << " does not end";
        ASSERT_EQ(*iStatus, 0) << vsArguments[0] << ": " << child.Output();
    }

    /// An ext4 file system with some files of random bytes in two folders.
    void MakeImage(const std::string& sMke2fs) {
        const std::string sTree = m_Work / "tree";
        ASSERT_EQ(::mkdir(sTree.c_str(), 0755), 0);
        ASSERT_EQ(::mkdir((sTree + "/folder").c_str(), 0755), 0);
        std::mt19937_64 random(4711);
        for (int i = 0; i < kFiles; ++i) {
            std::string sContent(random() % 1000000, '\0');
            std::generate(sContent.begin(), sContent.end(), [&] { return static_cast<char>(random()); });
            WriteWholeFile(sTree + (i % 2 == 0 ? "/" : "/folder/") + std::to_string(i), sContent);
        }
        ASSERT_NO_FATAL_FAILURE(
            Run({sMke2fs, "-q", "-F", "-t", "ext4", "-d", sTree, Image(), std::to_string(kImageSize / 1024) + "k"}));
        struct stat status {};
        ASSERT_EQ(::stat(Image().c_str(), &status), 0);
        ASSERT_EQ(status.st_size, kImageSize);
    }

    /// Cuts the image and stores the pieces in mixed order: bytewise behind each other in the first file, at multiples
    /// of 512 and of 4096 in the others.
    void CutImage() {
        constexpr std::int64_t viAlignments[] = {1, 512, 4096};
        std::mt19937_64 random(815);
        for (std::int64_t iOffset = 0; iOffset < kImageSize;) {
            // Mostly odd sizes; some far above and some far below what one read brings.
            const std::int64_t iMost = random() % 3 == 0 ? 5000 : 6000000;
            const std::int64_t iLength = std::min(
                kImageSize - iOffset, static_cast<std::int64_t>(1 + random() % static_cast<std::uint64_t>(iMost)));
            m_vPieces.push_back({iOffset, iLength, random() % 3, 0});
            iOffset += iLength;
        }
        std::vector<Piece*> vpMixed;
        for (Piece& piece : m_vPieces) {
            vpMixed.push_back(&piece);
        }
        std::shuffle(vpMixed.begin(), vpMixed.end(), random);
        std::int64_t viEnds[3] = {1, 0, 0};
        for (Piece* pPiece : vpMixed) {
            std::int64_t& iEnd = viEnds[pPiece->iSource];
            const std::int64_t iAlignment = viAlignments[pPiece->iSource];
            pPiece->iFileOffset = (iEnd + iAlignment - 1) / iAlignment * iAlignment;
            iEnd = pPiece->iFileOffset + pPiece->iLength;
        }
        StorePieces(viEnds);
    }

    void StorePieces(const std::int64_t (&viEnds)[3]) {
        const File image(Image(), O_RDONLY);
        std::vector<char> vcBlock(kBlock);
        for (std::size_t i = 0; i < 3; ++i) {
            const File source(Source(i), O_WRONLY | O_CREAT);
            ASSERT_EQ(::ftruncate(source, viEnds[i]), 0);
            for (const Piece& piece : m_vPieces) {
                for (std::int64_t iDone = 0; piece.iSource == i && iDone < piece.iLength;) {
                    const auto n = static_cast<std::size_t>(std::min<std::int64_t>(kBlock, piece.iLength - iDone));
                    ASSERT_EQ(::pread(image, vcBlock.data(), n, piece.iOffset + iDone), static_cast<ssize_t>(n));
                    ASSERT_NO_FATAL_FAILURE(WriteSparsely(source, vcBlock.data(), n, piece.iFileOffset + iDone));
                    iDone += static_cast<std::int64_t>(n);
                }
            }
        }
    }

    void Present(bool bInfoFile) {
        const std::string sDisk = Folder() / "disk";
        WriteWholeFile(sDisk, "");
        Server().OpenRedirectedFile(sDisk.c_str(), kImageSize, bInfoFile, 4, 64);
        for (const Piece& piece : m_vPieces) {
            char vcReason[kReasonBufferSize] = "";
            ASSERT_TRUE(Server().AddRedirectedFileSegment(sDisk.c_str(), Source(piece.iSource).c_str(),
                                                          piece.iFileOffset, piece.iOffset, piece.iLength, vcReason))
                << vcReason;
        }
        struct stat status {};
        ASSERT_EQ(::stat(sDisk.c_str(), &status), 0);
        ASSERT_EQ(status.st_size > 0, bInfoFile) << "the map is where it was asked for";
    }

    /// Reads the whole file with libnfs; its bytes go to the copy.
    void ReadBack(std::uint64_t* piChecksum) {
        const std::unique_ptr<nfs_context, LibnfsDeleter> pContext(nfs_init_context());
        nfs_context* pNfs = pContext.get();
        nfs_destroy_url(nfs_parse_url_incomplete(
            pNfs, "nfs://?version=3&auto-traverse-mounts=0&autoreconnect=0&nfsport=2049&mountport=1058"));
        ASSERT_EQ(nfs_mount(pNfs, "127.0.0.1", kExportName), 0) << nfs_get_error(pNfs);
        nfsfh* pFile = nullptr;
        ASSERT_EQ(nfs_open(pNfs, "/disk", O_RDONLY, &pFile), 0) << nfs_get_error(pNfs);
        const File copy(Copy(), O_WRONLY | O_CREAT | O_TRUNC);
        ASSERT_EQ(::ftruncate(copy, kImageSize), 0);
        std::vector<char> vcBlock(kBlock);
        Checksum checksum;
        std::int64_t iOffset = 0;
        int iRead = 0;
        while ((iRead = nfs_read(pNfs, pFile, kBlock, vcBlock.data())) > 0) {
            checksum.Add(vcBlock.data(), static_cast<std::size_t>(iRead));
            ASSERT_NO_FATAL_FAILURE(WriteSparsely(copy, vcBlock.data(), static_cast<std::size_t>(iRead), iOffset));
            iOffset += iRead;
        }
        EXPECT_EQ(iRead, 0) << nfs_get_error(pNfs);
        EXPECT_EQ(iOffset, kImageSize) << "bytes read";
        nfs_close(pNfs, pFile);
        nfs_umount(pNfs);
        *piChecksum = checksum.Get();
    }

    std::uint64_t ChecksumOfImage() {
        const File image(Image(), O_RDONLY);
        std::vector<char> vcBlock(kBlock);
        Checksum checksum;
        for (ssize_t iRead = 0; (iRead = ::read(image, vcBlock.data(), kBlock)) > 0;) {
            checksum.Add(vcBlock.data(), static_cast<std::size_t>(iRead));
        }
        return checksum.Get();
    }

    TempFolder m_Work;
    std::vector<Piece> m_vPieces;
};

TEST_F(RedirectedImageTest, FileSystemStoredInPiecesIsReadBackWholeWithAndWithoutInfoFile) {
    const std::string sMke2fs = FindTool("mke2fs");
    const std::string sE2fsck = FindTool("e2fsck");
    if (sMke2fs.empty() || sE2fsck.empty()) {
        GTEST_SKIP() << "mke2fs and e2fsck (e2fsprogs) are missing";
    }
    Server().SetLogControl(0);
    ASSERT_NO_FATAL_FAILURE(MakeImage(sMke2fs));
    ASSERT_NO_FATAL_FAILURE(CutImage());
    const std::uint64_t iExpected = ChecksumOfImage();
    for (const bool bInfoFile : {false, true}) {
        SCOPED_TRACE(bInfoFile ? "with an info file" : "in memory");
        ASSERT_NO_FATAL_FAILURE(Present(bInfoFile));
        std::uint64_t iChecksum = 0;
        ASSERT_NO_FATAL_FAILURE(ReadBack(&iChecksum));
        EXPECT_EQ(iChecksum, iExpected) << "checksum";
        EXPECT_NO_FATAL_FAILURE(Run({sE2fsck, "-fn", Copy()}));
    }
}

}  // namespace
