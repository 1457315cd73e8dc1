// The per-packet path allocates nothing once its buffers have grown: every global operator new and
// every OpenSSL allocation is counted while warmed-up ends exchange packets of every size.

#include "vxTest.h"
#include "vxTransportPair.h"

#include <openssl/crypto.h>

#include <atomic>
#include <cstdlib>
#include <new>

namespace {

std::atomic<long> allocations{0};

void* countedMalloc(size_t size, const char* /*file*/, int /*line*/)
{
    ++allocations;
    return std::malloc(size);
}

void* countedRealloc(void* block, size_t size, const char* /*file*/, int /*line*/)
{
    ++allocations;
    return std::realloc(block, size);
}

// Out of line, so the compiler does not pair the replacement delete with malloc's free.
__attribute__((noinline)) void plainFree(void* block, const char* /*file*/, int /*line*/)
{
    std::free(block);
}

// Installed before anything in the process has asked OpenSSL for memory.
const bool opensslCounted = CRYPTO_set_mem_functions(countedMalloc, countedRealloc, plainFree) == 1;

} // namespace

void* operator new(size_t size)
{
    ++allocations;
    if (void* block = std::malloc(size == 0 ? 1 : size)) {
        return block;
    }
    throw std::bad_alloc();
}

void operator delete(void* block) noexcept
{
    plainFree(block, nullptr, 0);
}

void operator delete(void* block, size_t /*size*/) noexcept
{
    plainFree(block, nullptr, 0);
}

namespace {

using veltrix::vxBytes;
using veltrix::vxCipherId;

class vxNetAllocTest : public vxtest::vxCryptoTest
{
protected:
    void TearDown() override
    {
        veltrix::vxBase::lvxClearLastError();
        pair.close();
        vxtest::vxCryptoTest::TearDown();
    }

    /** One packet each way per size; false at the first failure. */
    bool roundTrips(const std::vector<vxBytes>& payloads, vxBytes& got)
    {
        for (const vxBytes& payload : payloads) {
            if (!pair.client.send(payload) || !pair.server.receive(got) ||
                !pair.server.send(payload) || !pair.client.receive(got)) {
                return false;
            }
        }
        return true;
    }

    vxbench::transportPair pair;
};

TEST_F(vxNetAllocTest, WarmedUpEndsExchangePacketsWithoutAllocating)
{
    ASSERT_TRUE(opensslCounted) << "OpenSSL allocated before the counter was installed";
    ASSERT_TRUE(pair.open(frame, vxCipherId::aes256));
    std::vector<vxBytes> payloads;
    for (const size_t size : {0UL, 1UL, 16UL, 17UL, 1024UL, 16384UL}) {
        payloads.emplace_back();
        payloads.back().bytes.assign(size, 0x61);
    }
    vxBytes got;
    got.bytes.reserve(16384);
    ASSERT_TRUE(roundTrips(payloads, got)) << vxtest::dumpTrail(); // buffers reach their sizes
    const long before = allocations.load();
    for (int i = 0; i < 20; ++i) {
        ASSERT_TRUE(roundTrips(payloads, got)) << vxtest::dumpTrail();
    }
    EXPECT_EQ(allocations.load() - before, 0) << "allocations in 240 packets";
}

} // namespace
