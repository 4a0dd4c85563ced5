// Counting what hosts answered.
#include "HostAnswers.h"

namespace {

constexpr int kNoAnswer = -1;
constexpr int kGrantedAnswer = 0;

constexpr std::array<const char*, CHostAnswers::kKinds> kKindNames{"write", "attributes", "remove", "rename"};

}  // namespace

void CHostAnswers::Count(Kind kind, int iAnswer) {
    Counters& counters = m_vCounters[kind];
    const bool bGranted = kind == kWrite ? iAnswer >= kGrantedAnswer : iAnswer == kGrantedAnswer;
    if (bGranted) {
        ++counters.nGranted;
    } else if (iAnswer == kNoAnswer) {
        ++counters.nUnanswered;
    } else {
        ++counters.nRefused;
    }
}

std::array<CHostAnswers::Figures, CHostAnswers::kKinds> CHostAnswers::Read() const {
    std::array<Figures, kKinds> vFigures{};
    for (std::size_t i = 0; i < kKinds; ++i) {
        const Counters& counters = m_vCounters[i];
        vFigures[i] = {kKindNames[i], counters.nGranted, counters.nRefused, counters.nUnanswered, counters.nUnderWay};
    }
    return vFigures;
}
