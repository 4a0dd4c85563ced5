// The one place that knows which controller belongs to an access mode.
#pragma once

#include <memory>

class CNfsMain;

/// A new controller of an access mode (ServerIdentity.h), with the ID of its log lines and its log control. Null for a
/// number that is no access mode.
std::unique_ptr<CNfsMain> CreateController(int iAccessMode, const char* pcLogID, int iLogControl);
