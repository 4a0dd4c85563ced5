// CStatisticsFile: a file that holds the latest figures of a server.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <string>
#include <thread>

#include "StatisticsForm.h"
#include "ThreadAnnotations.h"

class CDescriptorCache;
class CRuntimeParam;

/// Writes a file anew again and again, on a thread of its own. Whoever reads it sees a whole text, the old or the new
/// one: it is written beside, under the name with ".tmp" behind it, and renamed. What another user puts under that name
/// is removed or stands in the way; it is never written to, nor followed if it is a link.
///
/// Write, Start and Stop are called by one thread at a time, and Write only while the thread does not run.
class CStatisticsFile {
public:
    /// Collectors look every 15 seconds to every minute.
    static constexpr std::chrono::milliseconds kInterval = std::chrono::seconds(10);
    /// Makes the text in the form asked for; called by the thread, and by who calls Write.
    using Show = std::function<std::string(StatisticsForm)>;

    /// Lines go out by the log under the parameter, and a lack of descriptors is met at the expense of the cache; all
    /// outlive the object.
    CStatisticsFile(std::string sPath, Show show, CDescriptorCache* pCache, CRuntimeParam* pRuntimeParam,
                    std::chrono::milliseconds interval = kInterval);
    ~CStatisticsFile();
    CStatisticsFile(const CStatisticsFile&) = delete;
    CStatisticsFile& operator=(const CStatisticsFile&) = delete;

    /// Writes it now. False with a reason.
    bool Write(char* pcReason);
    /// Writes it from now on: at once, and in every interval. A failure is logged when it begins, when its reason
    /// changes and when it is over. False with a reason if there is no thread to be had.
    bool Start(char* pcReason);
    /// Ends the thread, if there is one, and writes the file for the last time. Waits for a write under way.
    void Stop();

private:
    void Run();
    bool WaitForNext();
    void WriteAndReport();
    void Report(const std::string& sReason);
    std::string Replace();
    static int ReplaceIn(const std::string& sFolder, const std::string& sName, const std::string& sText,
                         bool* pbFolder);
    static int WriteBeside(int iFolder, const std::string& sName, const std::string& sText);

    const std::string m_sPath;
    const StatisticsForm m_Form;
    const Show m_Show;
    CDescriptorCache* const m_pCache;
    CRuntimeParam* const m_pRuntimeParam;
    const std::chrono::milliseconds m_Interval;
    std::string m_sReason;  ///< why the last writing failed; empty if it did not

    Mutex m_hMutex;
    std::condition_variable_any m_Changed;
    bool m_bStop GUARDED_BY(m_hMutex) = false;
    std::thread m_hThread;
};
