// Decoding and encoding of a call's and a reply's words, and the header scanner on garbage.
#include <benchmark/benchmark.h>

#include "InputStream.h"
#include "OutputStream.h"
#include "RpcServer.h"
#include "RuntimeParam.h"
#include "Socket.h"

namespace {

void ReadTenWords(benchmark::State& state) {
    CInputStream input;
    input.AddFilledBufferSize(40);
    for (auto _ : state) {
        input.SetBufferIndex(0);
        unsigned int iValue = 0;
        for (int i = 0; i < 10; ++i) {
            input.Read(&iValue);
        }
        benchmark::DoNotOptimize(iValue);
    }
}
BENCHMARK(ReadTenWords);

void WriteTenWords(benchmark::State& state) {
    COutputStream output;
    for (auto _ : state) {
        output.ResetBuffer();
        for (unsigned int i = 0; i < 10; ++i) {
            output.Write(i);
        }
        benchmark::DoNotOptimize(output.GetBuffer());
    }
}
BENCHMARK(WriteTenWords);

/// A megabyte without a call: the longest search there is.
void ScanGarbage(benchmark::State& state) {
    CRuntimeParam runtimeParam("", 0);
    CRpcServer server(nullptr, &runtimeParam);
    CSocket socket(CSocket::kStream, 100003);
    for (auto _ : state) {
        socket.GetInputStream()->ResetBuffer();
        socket.GetInputStream()->AddFilledBufferSize(CSocketStream::GetMaxBufferSize());
        server.SocketReceived(&socket);
    }
    state.SetBytesProcessed(state.iterations() * CSocketStream::GetMaxBufferSize());
}
BENCHMARK(ScanGarbage);

}  // namespace
