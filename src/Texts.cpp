// Texts and their pieces.
#include "Texts.h"

#include <string_view>

void AppendPieces(const char* pcText, char cSeparator, std::vector<std::string>& vOut) {
    std::string_view sRest = OrEmpty(pcText);
    while (!sRest.empty()) {
        const std::size_t nPiece = sRest.find(cSeparator);
        vOut.emplace_back(sRest.substr(0, nPiece));
        sRest.remove_prefix(nPiece == std::string_view::npos ? sRest.size() : nPiece + 1);
    }
}
