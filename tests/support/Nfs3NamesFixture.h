// Calls that name entries of the exported folder, beside a folder outside that nothing may reach.
#pragma once

#include <filesystem>

#include <sys/stat.h>
#include <unistd.h>

#include "Nfs3ProgFixture.h"

/// The procedures that go by a directory and a name, each as its status. Fails the test if anything in the folder
/// outside has changed at its end.
class Nfs3NamesFixture : public Nfs3ProgFixture {
protected:
    Nfs3NamesFixture() {
        WriteWholeFile(m_Outside / "secret", "secret");
        m_sUp = "../" + std::filesystem::path(m_Outside.Path()).filename().string();
    }
    ~Nfs3NamesFixture() override {
        EXPECT_EQ(ReadWholeFile(m_Outside / "secret"), "secret");
        EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_Outside.Path()), {}), 1)
            << "something came to be outside";
    }

    unsigned int Status(unsigned int iProc, const XdrBuilder& arguments) { return WordAt(Call(iProc, arguments), 0); }
    /// iHow: 0 UNCHECKED, 1 GUARDED, 2 EXCLUSIVE.
    unsigned int Create(const std::string& sName, unsigned int iHow = 0) {
        return Status(kNfsCreate, iHow == 2 ? DirOp(sName).U32(2).U64(0) : DirOp(sName).U32(iHow).Raw(m_sNoAttributes));
    }
    unsigned int Mkdir(const std::string& sName) { return Status(kNfsMkdir, DirOp(sName).Raw(m_sNoAttributes)); }
    unsigned int Remove(const std::string& sName) { return Status(kNfsRemove, DirOp(sName)); }
    unsigned int Rmdir(const std::string& sName) { return Status(kNfsRmdir, DirOp(sName)); }
    unsigned int Rename(const std::string& sFrom, const std::string& sTo) {
        return Status(kNfsRename, DirOp(sFrom).Opaque(Handle()).Opaque(sTo));
    }

    /// Made by the host: clients cannot make links.
    void Link(const std::string& sTarget, const std::string& sName) const {
        ASSERT_EQ(::symlink(sTarget.c_str(), Path(sName).c_str()), 0) << sName;
    }
    void MakeFolder(const std::string& sName) const { ASSERT_EQ(::mkdir(Path(sName).c_str(), 0755), 0) << sName; }
    void Export(const std::string& sPath, const char* pcName) {
        ASSERT_TRUE(m_Utilities.AddMountInfo(&m_Param, &m_Tag, sPath.c_str(), pcName, "", nullptr));
    }
    /// A link counts, wherever it leads.
    bool Exists(const std::string& sName) const {
        struct stat status {};
        return ::lstat(Path(sName).c_str(), &status) == 0;
    }
    bool IsLink(const std::string& sName) const { return std::filesystem::is_symlink(Path(sName)); }
    bool IsFolder(const std::string& sName) const {
        return std::filesystem::is_directory(std::filesystem::symlink_status(Path(sName)));
    }

    TempFolder m_Outside;
    std::string m_sUp;  ///< the way from the export to the folder outside
};
