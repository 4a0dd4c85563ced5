// The one file that is compiled anew for every place.
#include "Trees.h"

std::string SourceTree() {
    return NFSLIB_SOURCE_DIR;
}

std::string BuildTree() {
    return NFSLIB_BUILD_DIR;
}
