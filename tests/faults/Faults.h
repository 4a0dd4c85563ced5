// Switches for the faults of a server that was started with them.
#pragma once

#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <string>
#include <utility>

#include <fcntl.h>
#include <sys/mman.h>

#include "ChildProcess.h"
#include "Descriptor.h"
#include "FaultControl.h"
#include "TempFolder.h"
#include "Trees.h"

/// What goes wrong in a test that lets the first call of a kind do so, then the second, and so on to the last.
struct SweptFault {
    const char* pcName;  ///< of the test's instance
    FaultyCall call;
    FaultKind kind;
    int iError;
    int iStep = 1;  ///< from one call that goes wrong to the next, where there are many alike
};

inline void PrintTo(const SweptFault& fault, std::ostream* pStream) {
    *pStream << fault.pcName;
}

/// Switches faults of a process that maps the same file.
class Faults {
public:
    explicit Faults(std::string sPath) : m_sPath(std::move(sPath)) {
        WriteWholeFile(m_sPath, std::string(sizeof(FaultControl), '\0'));
        const CDescriptor file(::open(m_sPath.c_str(), O_RDWR | O_CLOEXEC));
        void* pvControl = ::mmap(nullptr, sizeof(FaultControl), PROT_READ | PROT_WRITE, MAP_SHARED, file.Get(), 0);
        if (pvControl == MAP_FAILED) {
            throw std::runtime_error("no control of faults");
        }
        m_pControl = static_cast<FaultControl*>(pvControl);
    }
    ~Faults() { ::munmap(m_pControl, sizeof(FaultControl)); }
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;

    /// How a console is started whose calls are to go wrong.
    ChildOptions Surroundings() const {
        const char* pcAsanOptions = std::getenv("ASAN_OPTIONS");
        ChildOptions options;
        options.vEnvironment = {
            {"LD_PRELOAD", BuildTree() + "/tests/faults/libfault_shim.so"},
            {FaultControl::kFileVariable, m_sPath},
            {"ASAN_OPTIONS", std::string(pcAsanOptions != nullptr ? pcAsanOptions : "") + ":verify_asan_link_order=0"}};
        return options;
    }
    /// The n-th call of that kind from now on, counted from 1, goes wrong.
    void Arm(FaultyCall call, FaultKind kind, int iError, int n) {
        m_pControl->nCountdown = 0;
        m_pControl->iCall = static_cast<int>(call);
        m_pControl->iKind = static_cast<int>(kind);
        m_pControl->iError = iError;
        m_pControl->nCountdown = n;
    }
    /// Lets everything go right; false if nothing had gone wrong.
    bool Disarm() { return m_pControl->nCountdown.exchange(0) == 0; }

private:
    std::string m_sPath;
    FaultControl* m_pControl = nullptr;
};
