// Watching what lies beside an export.
#include "OutsideWatch.h"

#include <algorithm>
#include <filesystem>
#include <stdexcept>

#include <sys/inotify.h>
#include <unistd.h>

#include "TempFolder.h"

namespace {

namespace fs = std::filesystem;

constexpr const char* kSecret = "no client may read or change this";
constexpr const char* kSecretName = "secret";
constexpr const char* kExportFolder = "export";

}  // namespace

OutsideWatch::OutsideWatch(const std::string& sFolder) : m_sOutside(sFolder) {
    fs::create_directories(m_sOutside);
    m_sOutside = fs::canonical(m_sOutside).string();
    m_sExport = m_sOutside + "/" + kExportFolder;
    constexpr unsigned int kTouches = IN_OPEN | IN_MODIFY | IN_ATTRIB | IN_CREATE | IN_DELETE | IN_MOVE;
    m_Watch = CDescriptor(::inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    if (::inotify_add_watch(m_Watch.Get(), m_sOutside.c_str(), kTouches) == -1) {
        throw std::runtime_error("no watch on " + m_sOutside);
    }
    Clear();
}

OutsideWatch::~OutsideWatch() {
    std::error_code ignored;  // below /tmp
    fs::remove_all(m_sOutside, ignored);
}

void OutsideWatch::Clear() {
    std::error_code ignored;
    for (const auto& entry : fs::directory_iterator(m_sOutside)) {
        fs::remove_all(entry.path(), ignored);
    }
    WriteWholeFile(m_sOutside + "/" + kSecretName, kSecret);
    fs::create_directories(m_sExport, ignored);
    Forget();
}

bool OutsideWatch::HoldsSecret(std::string_view sText) {
    return sText.find(kSecret) != std::string_view::npos;
}

std::string OutsideWatch::Judge() {
    return WasTouched() ? Describe() : "";
}

bool OutsideWatch::WasTouched() {
    constexpr std::size_t kEventsSize = 4096;
    alignas(inotify_event) char cEvents[kEventsSize];
    bool bTouched = false;
    for (ssize_t nRead = 0; (nRead = ::read(m_Watch.Get(), cEvents, sizeof(cEvents))) > 0;) {
        for (ssize_t i = 0; i < nRead;) {
            const auto* pEvent = reinterpret_cast<const inotify_event*>(cEvents + i);
            // The export itself is listed, and given another mode.
            bTouched |= (pEvent->mask & IN_ISDIR) == 0 || (pEvent->mask & (IN_OPEN | IN_ATTRIB)) == 0;
            i += static_cast<ssize_t>(sizeof(inotify_event)) + static_cast<ssize_t>(pEvent->len);
        }
    }
    return bTouched;
}

/// Something happened outside, which is wrong, whatever is there now.
std::string OutsideWatch::Describe() {
    const bool bChanged = ReadWholeFile(m_sOutside + "/" + kSecretName) != kSecret;
    const auto isStranger = [this](const fs::directory_entry& entry) {
        const std::string sName = entry.path().filename().string();
        return sName != kSecretName && (sName != kExportFolder || !fs::is_directory(fs::symlink_status(m_sExport)));
    };
    const bool bStranger = std::any_of(fs::directory_iterator(m_sOutside), fs::directory_iterator(), isStranger);
    const bool bGone = !fs::exists(fs::symlink_status(m_sExport));
    Forget();
    if (bChanged) {
        return "a file outside the export was changed";
    }
    if (bStranger || bGone) {
        return "something outside the export, or the export itself, was made or removed";
    }
    return "a file outside the export was opened";
}
