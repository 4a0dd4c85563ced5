// Utilities that fail unexpectedly in the middle of a procedure.
#pragma once

#include <stdexcept>

#include "LogCapture.h"

/// Throws where a line of information is logged; error lines are captured as usual.
class ThrowingUtilities : public CaptureUtilities {
public:
    using CaptureUtilities::CaptureUtilities;
    using CaptureUtilities::LogInfo;

    void LogInfo(CRuntimeParam* /*pRuntimeParam*/, const char* /*pcMessage*/) override {
        throw std::runtime_error("no line of information can be logged");
    }
};
