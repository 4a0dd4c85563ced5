// Medians, spreads and shares of known figures; and a whole round against a server that goes wrong.
#include "Measurement.h"

#include <thread>

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "NfsMessages.h"
#include "TcpExchange.h"
#include "TempFolder.h"

namespace {

Measurement MeasurementOf(std::vector<std::uint64_t> vnOperations) {
    Measurement measurement;
    for (const std::uint64_t nOperations : vnOperations) {
        measurement.vRounds.push_back({1.0, nOperations});
    }
    return measurement;
}

/// Answers calls of one connection with these bytes, in which the transaction ID is the call's, until it is closed.
class FixedServer {
public:
    explicit FixedServer(std::string sReply) : m_iListener(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t nAddress = sizeof(address);
        EXPECT_EQ(::bind(m_iListener, reinterpret_cast<const sockaddr*>(&address), nAddress), 0);
        EXPECT_EQ(::listen(m_iListener, 1), 0);
        EXPECT_EQ(::getsockname(m_iListener, reinterpret_cast<sockaddr*>(&address), &nAddress), 0);
        m_iPort = ntohs(address.sin_port);
        m_Thread = std::thread([this, sReply] { Serve(sReply); });
    }
    ~FixedServer() {
        ::shutdown(m_iListener, SHUT_RDWR);
        m_Thread.join();
        ::close(m_iListener);
    }
    FixedServer(const FixedServer&) = delete;
    FixedServer& operator=(const FixedServer&) = delete;
    int GetPort() const { return m_iPort; }

private:
    void Serve(std::string sReply) const {
        const int iSocket = ::accept4(m_iListener, nullptr, nullptr, SOCK_CLOEXEC);
        try {
            while (iSocket >= 0) {
                const std::string sCall = ReceiveRecord(iSocket);
                PutWord(sReply.data() + kXidAt, WordAt(sCall.data() + kXidAt));
                SendAll(iSocket, sReply);
            }
        } catch (const std::runtime_error&) {
            ::close(iSocket);  // the load has gone
        }
    }

    int m_iListener;
    int m_iPort = 0;
    std::thread m_Thread;
};

std::string ReplyToNull(std::uint32_t iAcceptStatus) {
    std::string sReply(28, '\0');
    PutWord(sReply.data(), kLastFragment | 24);
    PutWord(sReply.data() + 8, 1);
    PutWord(sReply.data() + 24, iAcceptStatus);
    return sReply;
}

/// One short round of NULL calls against a server with this reply.
Round RunNull(const std::string& sReply) {
    const TempFolder scratch;
    const LoadFolder folder(scratch.Path());
    Row row;
    row.vKinds.push_back(MakeNull());
    row.vOperations = {{0}};
    row.vOrder = {0};
    const FixedServer server(sReply);
    LoadShape shape;
    shape.nDepth = 4;
    std::vector<std::uint32_t> vLatencies;
    LoadSession session(server.GetPort(), row, folder, shape, nullptr);
    const Round round = session.Run(std::chrono::milliseconds(5), &vLatencies);
    EXPECT_GE(vLatencies.size(), round.nOperations);
    return round;
}

}  // namespace

TEST(MeasurementTest, TheMedianCountsAndNotTheBestRound) {
    const Measurement measurement = MeasurementOf({300, 100, 900, 200, 250});
    EXPECT_DOUBLE_EQ(measurement.Median(), 250);
    EXPECT_DOUBLE_EQ(measurement.Best(), 900);
}

TEST(MeasurementTest, SharesAreTakenRoundByRound) {
    const Spread share = MeasurementOf({50, 400, 75}).ShareOf(MeasurementOf({100, 1000, 100}));
    EXPECT_DOUBLE_EQ(share.dMedian, 0.5);
    EXPECT_DOUBLE_EQ(share.dLower, 0.45);
    EXPECT_DOUBLE_EQ(share.dUpper, 0.625);
}

TEST(MeasurementTest, PercentilesAreThoseOfAllOperations) {
    Measurement measurement;
    for (std::uint32_t i = 101; i > 0; --i) {
        measurement.vLatencies.push_back((i - 1) * 1000);
    }
    measurement.SortLatencies();
    EXPECT_DOUBLE_EQ(measurement.Percentile(0.5), 50);
    EXPECT_DOUBLE_EQ(measurement.Percentile(0.99), 99);
    EXPECT_DOUBLE_EQ(measurement.Percentile(1), 100);
}

TEST(MeasurementTest, ARoundCountsWhatWasAnswered) {
    const Round round = RunNull(ReplyToNull(0));
    EXPECT_GT(round.nOperations, 0U);
    EXPECT_GE(round.dSeconds, 0.005);
}

TEST(MeasurementTest, ARoundEndsWithTheFirstWrongReply) {
    EXPECT_THROW(RunNull(ReplyToNull(5)), WrongReply);
}
