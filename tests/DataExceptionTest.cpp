// What a decoder throws when the input runs short.
#include "DataException.h"

#include <gtest/gtest.h>

namespace {

TEST(DataExceptionTest, TextCarriesTheShortfall) {
    const CDataTruncatedExpt exception(12, 5);
    EXPECT_STREQ(exception.what(), "Data is truncated.Missing 7 data");
}

TEST(DataExceptionTest, IsCaughtAsARuntimeError) {
    EXPECT_THROW(throw CDataTruncatedExpt(4, 0), std::runtime_error);
}

}  // namespace
