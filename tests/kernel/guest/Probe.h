// What the commands of the probe share: arguments, descriptors, failures.
#pragma once

#include <cstdint>
#include <span>
#include <stdexcept>
#include <string>

/// A system call that failed, or a file that is not what it must be, with its one-line reason.
class ProbeError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

/// The reason of a system call that has just failed: what was done to which file, and errno's text.
[[noreturn]] void FailWithErrno(const std::string& sWhat, const std::string& sPath);

/// A descriptor that is closed at the end, or earlier by Close, which tells what close itself reports: with NFS that
/// is where a write that failed late comes to light.
class ProbeFile {
public:
    ProbeFile(std::string sPath, int iFlags);
    ~ProbeFile();
    ProbeFile(const ProbeFile&) = delete;
    ProbeFile& operator=(const ProbeFile&) = delete;

    int Number() const { return m_iNumber; }
    const std::string& Path() const { return m_sPath; }
    std::uint64_t Size() const;
    void Close();

private:
    std::string m_sPath;
    int m_iNumber;
};

/// Waits until somebody has made the file.
void WaitForFile(const std::string& sPath);

/// The arguments of a command, behind its name.
class Arguments {
public:
    explicit Arguments(std::span<char*> texts) : m_Texts(texts) {}

    /// The next one; ProbeError if there is none.
    std::string Text();
    std::uint64_t Number();
    /// Takes the next one if it is this word.
    bool Has(const char* pcWord);

private:
    std::span<char*> m_Texts;
};

// The commands. Each throws ProbeError if what it does fails or what it looks at is wrong.

void WriteFile(Arguments arguments);           ///< FILE OFFSET LENGTH BLOCK SEED [direct] [append]
void AppendLater(Arguments arguments);         ///< FILE LINE OPENED GO: opens, makes OPENED, waits for GO, appends
void CheckFile(Arguments arguments);           ///< FILE SIZE BLOCK SEED [direct]
void CheckAtRandom(Arguments arguments);       ///< FILE SIZE COUNT SEED [direct]
void WriteMapped(Arguments arguments);         ///< FILE SIZE SEED
void CheckMapped(Arguments arguments);         ///< FILE SIZE SEED
void RemoveWhileListing(Arguments arguments);  ///< FOLDER
void ListWithPause(Arguments arguments);       ///< FOLDER COUNT PAUSED GO: makes PAUSED after COUNT names, waits for GO
void MakeTree(Arguments arguments);            ///< FOLDER
void WriteTraffic(Arguments arguments);        ///< FILE VICTIM: with calls that would remove VICTIM
