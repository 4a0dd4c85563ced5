// Commands that come, go, and are ended.
#include "RunningCommands.h"

#include "ShellCommand.h"

void CRunningCommands::EndAll() {
    const MutexLock lock(m_hMutex);
    EndAllLocked();
}

void CRunningCommands::EndAllLocked() {
    for (CShellCommand* pCommand : m_Commands) {
        pCommand->End();
    }
}

CRunningCommands::Entry::Entry(CRunningCommands& all, CShellCommand& command) : m_All(all), m_Command(command) {
    const MutexLock lock(m_All.m_hMutex);
    m_All.m_Commands.insert(&m_Command);
    if (m_All.m_nStops > 0) {
        m_Command.End();
    }
}

CRunningCommands::Entry::~Entry() {
    const MutexLock lock(m_All.m_hMutex);
    m_All.m_Commands.erase(&m_Command);
}

CRunningCommands::Stop::Stop(CRunningCommands& all) : m_All(all) {
    const MutexLock lock(m_All.m_hMutex);
    ++m_All.m_nStops;
    m_All.EndAllLocked();
}

CRunningCommands::Stop::~Stop() {
    const MutexLock lock(m_All.m_hMutex);
    --m_All.m_nStops;
}
