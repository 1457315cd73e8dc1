// transport_bench: the cost of one packet of the secure transport, send and receive side, beside
// the direct OpenSSL end of reference/. How it measures: bench/README.md.

#include "benchCommon.h"
#include "directTransport.h"
#include "vxTransportPair.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iostream>
#include <string>
#include <vector>

using namespace veltrix;
using namespace vxbench;
using vxdirect::kPayloadSizes;
using vxdirect::mixedPair;
using vxdirect::referenceEnd;

namespace {

using bytes = std::vector<unsigned char>;

/** AES-256, the default cipher of the tools. */
const vxdirect::cipherChoice& kCipher = *vxdirect::findCipher("aes256");

// ---- Agreement check before timing -----------------------------------------------------------

bool checkAgreement(benchFrame& frame)
{
    mixedPair ends(frame, kCipher);
    size_t failedSize = 0;
    if (!ends.ready) {
        return false;
    }
    if (!vxdirect::checkAgreement(ends, failedSize)) {
        std::cerr << "transport_bench: the library and the reference disagree at " << failedSize
                  << " bytes\n";
        return false;
    }
    return true;
}

// ---- Benchmarks ------------------------------------------------------------------------------

void benchLibrarySend(benchmark::State& state, benchFrame& frame, size_t size)
{
    vxbench::transportPair ends;
    const bool ready = ends.open(frame, kCipher.id);
    vxbench::transportEnd& end = ends.server;
    const vxBytes payload = asBytes(pattern(size, 1));
    timeSteps(state, ready, "the library send", size, end.wire.bytes.data(),
              [&] { return end.build(payload); });
    ends.close();
}

void benchDirectSend(benchmark::State& state, size_t size)
{
    referenceEnd end;
    const bool ready = end.openPaired(kCipher, true);
    const bytes payload = pattern(size, 1);
    bytes wire;
    timeSteps(state, ready, "the reference send", size, wire.data(),
              [&] { return end.seal(payload, wire); });
}

/** The receive loop both columns share: packets are written in batches with the timer paused,
 *  then received one per iteration. */
template <class Receive>
void timeReceives(benchmark::State& state, bool ready, const char* what, size_t size,
                  vxbench::transportEnd& producer, Receive receive)
{
    if (!ready) {
        state.SkipWithError((std::string("cannot set up ") + what).c_str());
        return;
    }
    const vxBytes payload = asBytes(pattern(size, 2));
    const size_t batch = vxdirect::receiveBatch(size);
    size_t waiting = 0;
    for (auto _ : state) {
        if (waiting == 0) {
            state.PauseTiming();
            for (waiting = 0; waiting < batch; ++waiting) {
                if (!producer.send(payload)) {
                    state.SkipWithError("the producer failed");
                    return;
                }
            }
            state.ResumeTiming();
        }
        if (!receive()) {
            state.SkipWithError((std::string(what) + " failed").c_str());
            return;
        }
        --waiting;
    }
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(size));
}

void benchLibraryReceive(benchmark::State& state, benchFrame& frame, size_t size)
{
    mixedPair ends(frame, kCipher); // the library client reads; the reference stays idle
    vxBytes got;
    got.bytes.reserve(size);
    timeReceives(state, ends.ready, "the library receive", size, ends.pair.server,
                 [&] { return ends.pair.client.receive(got); });
}

void benchDirectReceive(benchmark::State& state, benchFrame& frame, size_t size)
{
    mixedPair ends(frame, kCipher);
    bytes got;
    got.reserve(size);
    timeReceives(state, ends.ready, "the reference receive", size, ends.pair.server,
                 [&] { return ends.reference.receive(ends.referenceFd(), got); });
}

/** The goal for a payload size, as library time over reference time (0: none). The second lane
 *  should make bulk packets at least 1.5 times as fast as the one-lane reference, and 1 KiB
 *  packets no slower; a packet without payload is a header alone and may take up to twice. */
double goalFor(size_t size)
{
    switch (size) {
    case 0:
        return 2.0;
    case 1024:
        return 1.0;
    case 16384:
        return 0.67;
    default:
        return 0;
    }
}

std::vector<benchPair> pairs()
{
    static std::vector<std::string> names;
    static std::vector<std::string> labels;
    std::vector<double> goals;
    for (const char* side : {"send", "receive"}) {
        for (const size_t size : kPayloadSizes) {
            if (labels.size() < 2 * std::size(kPayloadSizes)) {
                const std::string base = std::string(side) + "/" + std::to_string(size) + "B/";
                names.push_back(base + "library");
                names.push_back(base + "openssl");
                labels.push_back(std::string(side) + ", " + std::to_string(size) + "-byte payload");
            }
            goals.push_back(goalFor(size));
        }
    }
    std::vector<benchPair> table;
    for (size_t i = 0; i < labels.size(); ++i) {
        table.push_back(
            {labels[i].c_str(), names[2 * i].c_str(), names[2 * i + 1].c_str(), goals[i]});
    }
    return table;
}

void registerBenchmarks(benchFrame& frame, const std::vector<benchPair>& table)
{
    for (size_t i = 0; i < table.size(); ++i) {
        const size_t size = kPayloadSizes[i % std::size(kPayloadSizes)];
        if (i < std::size(kPayloadSizes)) {
            registerPair(
                table[i], [&frame, size](auto& state) { benchLibrarySend(state, frame, size); },
                [size](auto& state) { benchDirectSend(state, size); });
        } else {
            registerPair(
                table[i], [&frame, size](auto& state) { benchLibraryReceive(state, frame, size); },
                [&frame, size](auto& state) { benchDirectReceive(state, frame, size); });
        }
    }
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<benchPair> table = pairs();
    return runBenchmarks(argc, argv, "transport_bench", VX_PLUGIN_DIR, table,
                         [&](benchFrame& frame) {
                             if (!checkAgreement(frame)) {
                                 return false;
                             }
                             registerBenchmarks(frame, table);
                             return true;
                         });
}
