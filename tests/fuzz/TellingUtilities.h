// Registries that say where calls come to.
#pragma once

#include <functional>
#include <string_view>
#include <utility>

#include "Utilities.h"

/// Log lines are formatted, so that their values are exercised, and dropped, but for the names of the procedures that
/// are entered: those are told, as "Nfs3Prog.ProcedureREAD". For a log control with kLogProcFuncName.
class TellingUtilities : public CUtilities {
public:
    explicit TellingUtilities(std::function<void(std::string_view)> tell) : m_Tell(std::move(tell)) {}

    using CUtilities::LogError;
    using CUtilities::LogInfo;
    using CUtilities::LogRaw;

    void LogInfo(CRuntimeParam* /*pRuntimeParam*/, const char* pcMessage) override {
        const std::string_view sLine(pcMessage);
        if (sLine.starts_with('[') && sLine.find(']') == sLine.size() - 1 &&
            sLine.find(".Procedure") != std::string_view::npos) {
            m_Tell(sLine.substr(1, sLine.size() - 2));
        }
    }
    void LogError(CRuntimeParam* /*pRuntimeParam*/, const char* /*pcMessage*/) override {}
    void LogRaw(CRuntimeParam* /*pRuntimeParam*/, const char* /*pcMessage*/) override {}

private:
    std::function<void(std::string_view)> m_Tell;
};
