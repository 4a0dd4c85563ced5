// Controllers by access mode.
#include "ControllerFactory.h"

#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "ServerIdentity.h"

std::unique_ptr<CNfsMain> CreateController(int iAccessMode, const char* pcLogID, int iLogControl) {
    switch (iAccessMode) {
        case kAccessModeInternal:
            return std::make_unique<CNfsMain>(pcLogID, iLogControl);
        case kAccessModeServer:
            return std::make_unique<CNfsIpcServerMain>(pcLogID, iLogControl);
        case kAccessModeClient:
            return std::make_unique<CNfsIpcClientMain>(pcLogID, iLogControl);
        default:
            return nullptr;
    }
}
