// The shortfall of a truncated input, as text.
#include "DataException.h"

#include <cstdio>

CDataTruncatedExpt::CDataTruncatedExpt(unsigned int iWanted, unsigned int iAvailable)
    : std::runtime_error("Data is truncated."), m_cMessage{} {
    std::snprintf(m_cMessage, sizeof(m_cMessage), "Data is truncated.Missing %u data", iWanted - iAvailable);
}
